#include "servers/pop3/MPop3Responses.h"

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

// The number of lines of `body` that begin with ".": the extra bytes that stuffing adds.
std::size_t CountDotLines(std::string_view body) {
    std::size_t count = body.starts_with('.') ? 1 : 0;
    for (std::size_t at = body.find(kDotLine); at != std::string_view::npos; at = body.find(kDotLine, at + 3)) ++count;
    return count;
}

// Appends `body` to `out` with one more "." in front of every line that begins with "." (lines begin at the
// start and after each CR LF), copying the stretches between such lines whole.
void AppendStuffed(std::string& out, std::string_view body) {
    if (body.starts_with('.')) out += '.';
    std::size_t from = 0;
    for (std::size_t at = body.find(kDotLine); at != std::string_view::npos; at = body.find(kDotLine, at + 3)) {
        out.append(body.substr(from, at + kCrLf.size() - from));
        out += '.';
        from = at + kCrLf.size();
    }
    out.append(body.substr(from));
}

}  // namespace

std::string StuffDots(std::string_view body) {
    std::string out;
    out.reserve(body.size() + CountDotLines(body));
    AppendStuffed(out, body);
    return out;
}

std::string BuildRETRResponse(const mailservice::CHotmailMessage& message, const std::string& appName,
                              const std::string& appVersion) {
    std::string out = "+OK " + message.mLength + " octets";
    out += kCrLf;
    out += "X-Application: " + appName + " - " + appVersion;
    out += kCrLf;
    // Exactly the room the whole response needs, the frame's final CR LF included: a message of many
    // megabytes is stuffed straight into it and never copied or moved again.
    out.reserve(out.size() + message.mBody.size() + CountDotLines(message.mBody) + 2 * kCrLf.size() + 1);
    AppendStuffed(out, message.mBody);
    out += kCrLf;
    out += ".";
    return out;
}

}  // namespace servers::pop3::MPop3Responses
