#include "servers/pop3/MPop3Responses.h"

#include <utility>

#include "core/Convert.h"

namespace servers::pop3::MPop3Responses {
namespace {

constexpr std::string_view kCrLf = "\r\n";

}  // namespace

std::string BuildSTATResponse(std::int16_t count, std::int32_t size) {
    return "+OK " + core::ToText(count) + " " + core::ToText(size);
}

std::string BuildLISTResponse(const MessageList& messages, std::int16_t count, std::int32_t size) {
    std::string out = "+OK " + core::ToText(count) + " messages (" + core::ToText(size) + " octets)";
    out += kCrLf;
    std::int64_t i = 0;
    for (const MessagePtr& m : messages) {
        out += core::ToText(++i) + " " + m->mLength;
        out += kCrLf;
    }
    out += ".";
    return out;
}

std::string BuildLISTItemResponse(const std::string& argument, const mailservice::CHotmailMessage& message) {
    return "+OK " + argument + " " + message.mLength;
}

std::string BuildUIDLResponse(const MessageList& messages) {
    std::string out = "+OK ";
    out += kCrLf;
    std::int64_t i = 0;
    for (const MessagePtr& m : messages) {
        out += core::ToText(++i) + " " + GetUIDLUniqueID(m->mMessageID, m->mFrom);
        out += kCrLf;
    }
    out += ".";
    return out;
}

std::string BuildUIDLItemResponse(const std::string& argument, const mailservice::CHotmailMessage& message) {
    return "+OK " + argument + " " + GetUIDLUniqueID(message.mMessageID, message.mFrom);
}

std::string GetUIDLUniqueID(const std::string& messageId, const std::string& from) {
    std::string sender = from;
    for (char& c : sender) {
        if (c == '@' || c == ' ') c = ':';
    }
    std::string id = messageId + ":" + sender;
    if (id.size() > kUniqueIdMaxLength) id.resize(kUniqueIdMaxLength);
    return id;
}

namespace {

constexpr std::string_view kDotLine = "\r\n.";

// The RETR response: its two head lines, the body stuffed piece by piece, then the final CR LF ".".
class RetrPieces : public core::ITextPieces {
public:
    RetrPieces(std::string head, core::TextPiecesPtr body) : head_(std::move(head)), body_(std::move(body)) {}

    bool Next(std::string& piece) override {
        piece.clear();
        switch (stage_) {
            case Stage::kHead:
                // The head lines go out with the first stretch of the body, not in a small packet of their own.
                piece = std::move(head_);
                stage_ = Stage::kBody;
                [[fallthrough]];
            case Stage::kBody:
                if (body_->Next(raw_)) {
                    stuffer_.Append(piece, raw_);
                    return true;
                }
                stage_ = Stage::kDone;
                piece.append(kCrLf).append(".");
                return true;
            case Stage::kDone:
                break;
        }
        return false;
    }

private:
    enum class Stage { kHead, kBody, kDone };

    Stage stage_ = Stage::kHead;
    std::string head_;
    core::TextPiecesPtr body_;
    std::string raw_;
    DotStuffer stuffer_;
};

}  // namespace

void DotStuffer::Append(std::string& out, std::string_view piece) {
    if (piece.empty()) return;
    std::size_t from = 0;
    if (atLineStart_ && piece.front() == '.') {
        out += '.';
    } else if (afterCr_ && piece.starts_with("\n.")) {
        // The CR LF that starts this line was cut between the pieces.
        out += '\n';
        out += '.';
        from = 1;
    }
    for (std::size_t at = piece.find(kDotLine, from); at != std::string_view::npos;
         at = piece.find(kDotLine, at + kDotLine.size())) {
        out.append(piece.substr(from, at + kCrLf.size() - from));
        out += '.';
        from = at + kCrLf.size();
    }
    out.append(piece.substr(from));
    atLineStart_ = piece.ends_with(kCrLf) || (afterCr_ && piece == "\n");
    afterCr_ = piece.back() == '\r';
}

std::string StuffDots(std::string_view body) {
    std::string out;
    DotStuffer().Append(out, body);
    return out;
}

core::TextPiecesPtr RETRResponsePieces(const mailservice::CHotmailMessage& message, const std::string& appName,
                                       const std::string& appVersion, std::size_t pieceBytes) {
    std::string head = "+OK " + message.mLength + " octets";
    head += kCrLf;
    head += "X-Application: " + appName + " - " + appVersion;
    head += kCrLf;
    return std::make_unique<RetrPieces>(std::move(head), message.mBody.Pieces(pieceBytes));
}

std::string BuildRETRResponse(const mailservice::CHotmailMessage& message, const std::string& appName,
                              const std::string& appVersion) {
    return core::ReadAllPieces(*RETRResponsePieces(message, appName, appVersion));
}

}  // namespace servers::pop3::MPop3Responses
