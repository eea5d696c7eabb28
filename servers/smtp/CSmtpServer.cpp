#include "servers/smtp/CSmtpServer.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "core/Ascii.h"
#include "core/Trap.h"
#include "mailservice/CHotmail.h"

namespace servers::smtp {
namespace {

constexpr std::string_view kEndOfData = "\r\n.\r\n";

// The relayed text in pieces: the envelope lines, then the message from its spool file, then the end lines.
class EnvelopedText : public core::ITextPieces {
public:
    EnvelopedText(std::string head, core::TextPiecesPtr body, std::string tail)
        : head_(std::move(head)), body_(std::move(body)), tail_(std::move(tail)) {}

    bool Next(std::string& piece) override {
        piece.clear();
        if (!headDone_) {
            headDone_ = true;
            piece = head_;
            return true;
        }
        if (body_->Next(piece)) return true;
        if (tailDone_) return false;
        tailDone_ = true;
        piece = tail_;
        return true;
    }

private:
    std::string head_;
    core::TextPiecesPtr body_;
    std::string tail_;
    bool headDone_ = false;
    bool tailDone_ = false;
};

frame::ServerProfile SmtpProfile() {
    return frame::ServerProfile{
        .socketControl = &core::IGatewayHost::WinsockSMTP,
        .serverName = "SMTP server",
        .defaultListenPort = "25",
        .errorPrefix = "500 ",
        .unrecognisedCommandText = "Tarnwick/SMTP Gateway Server does not understand the command: ",
        .logsSendEvents = false,
        .classInitializeLabel = "CSmtpServer Class_Initialize Event",
        .getCommand = &CSmtpServer::GetCommand,
        .getArgument = &CSmtpServer::GetArgument,
        .requestEntry = frame::ServerProfile::RequestEntry::kCommandWord,
    };
}

}  // namespace

CSmtpServer::CSmtpServer(core::IGatewayHost& host)
    : ServerFrame(host, SmtpProfile(),
                  // Every word in dispatch order; MESG and SEND are the words ReadRequest gives message data.
                  frame::BindCommands<CSmtpServer>(*this, {{"CONN", &CSmtpServer::HandleCONN},
                                                           {"HELO", &CSmtpServer::HandleHELO},
                                                           {"MAIL", &CSmtpServer::HandleMAIL},
                                                           {"RCPT", &CSmtpServer::HandleRCPT},
                                                           {"DATA", &CSmtpServer::HandleDATA},
                                                           {"MESG", &CSmtpServer::HandleMESG},
                                                           {"SEND", &CSmtpServer::HandleSEND},
                                                           {"QUIT", &CSmtpServer::HandleQUIT}})) {}

std::string CSmtpServer::GetCommand(std::string_view text) {
    const std::size_t space = text.find(' ');
    const std::size_t length = space == std::string_view::npos ? text.size() : space;
    if (!FitsCount16(length)) return {};
    return RemoveCrLf(core::Ascii::UpperCase(std::string(text.substr(0, length))));
}

std::string CSmtpServer::GetArgument(std::string_view text) {
    const std::string s = RemoveCrLf(text);
    if (!FitsCount16(s.size())) return {};
    const std::size_t colon = s.find(':');
    if (colon == std::string::npos) return {};
    const std::size_t first = s.find_first_not_of(' ', colon + 1);
    if (first == std::string::npos) return {};
    return s.substr(first, s.find_last_not_of(' ') - first + 1);
}

frame::Request CSmtpServer::ReadRequest(std::string& arrival) const {
    if (!DataMode) return ReadCommand(arrival);
    const std::size_t end = FindEndOfData(MailDataTail, arrival);
    // Message chunks are not logged; only the end mark tells the last chunk from the others.
    Request chunk{end == std::string::npos ? "MESG" : "SEND", {}, {}, /*logged=*/false};
    if (end == std::string::npos || end == arrival.size()) {
        chunk.text = std::move(arrival);
        arrival.clear();
    } else {
        // A client that took the reply to an early chunk for the reply to its end of data has sent QUIT
        // already, and it may come in the same arrival as the last chunk.
        chunk.text = arrival.substr(0, end);
        arrival.erase(0, end);
    }
    return chunk;
}

std::size_t CSmtpServer::FindEndOfData(std::string_view collected, std::string_view arrival) {
    constexpr std::size_t kSeam = kEndOfData.size() - 1;
    // The mark may begin in the text before: a client that ends its text with a line break often sends the
    // "." line as a write of its own.
    std::string seam = collected.empty()
                           ? std::string("\r\n")
                           : std::string(collected.substr(collected.size() - std::min(collected.size(), kSeam)));
    const std::size_t before = seam.size();
    seam += arrival.substr(0, kSeam);
    if (const std::size_t at = seam.find(kEndOfData); at != std::string::npos) return at + kEndOfData.size() - before;
    const std::size_t at = arrival.find(kEndOfData);
    return at == std::string_view::npos ? std::string_view::npos : at + kEndOfData.size();
}

frame::Reply CSmtpServer::HandleCONN(const Request& /*request*/) {
    return Reply::Response("220 " + std::string(kMailDomain));
}

// A refused HELO does not end the dialogue: no command depends on an earlier one.
frame::Reply CSmtpServer::HandleHELO(const Request& /*request*/) {
    if (CredentialsAvailable()) return Reply::Response("250 hello");
    return Reply::Error(std::string(kCredentialsUnavailable));
}

frame::Reply CSmtpServer::HandleMAIL(const Request& request) {
    MailFrom = request.argument;
    return Reply::Response("250 ok");
}

// One recipient only: a later RCPT replaces the earlier one.
frame::Reply CSmtpServer::HandleRCPT(const Request& request) {
    RcptTo = request.argument;
    return Reply::Response("250 ok");
}

frame::Reply CSmtpServer::HandleDATA(const Request& /*request*/) {
    // A file that cannot be made refuses DATA: the client keeps its message.
    MailData = core::SpoolFile::Create();
    MailDataTail.clear();
    DataMode = true;
    return Reply::Response("354 ok");
}

// Every chunk is answered, not only the last one, and the answers stay out of the log. The answer is held
// until the client waits for it: a mail reader that streams its message must find the reply to its end of
// data first when it reads (the frame's held replies).
frame::Reply CSmtpServer::HandleMESG(const Request& request) {
    AppendMailData(request.text);
    return Reply::Held("250 ok");
}

void CSmtpServer::AppendMailData(std::string_view chunk) {
    if (!MailData) core::Raise(core::ErrorNumber::kObjectNotSet);
    // A failed write stays with the file (SpoolFile), which HandleSEND checks before anything is relayed.
    (void)core::SkipOnError([&] { MailData->Append(chunk); });
    MailDataTail.append(chunk);
    MailDataTail.erase(0, MailDataTail.size() - std::min(MailDataTail.size(), kEndOfData.size() - 1));
}

frame::Reply CSmtpServer::HandleSEND(const Request& request) {
    if (DataMode) {
        // Clients send their last lines together with the end mark; those lines belong to the message, the
        // mark's five bytes do not (BuildMessage puts back its CR LF and "." line, so that the relayed text
        // ends as the client's data did). Right after DATA the mark starts with that line's own CR LF, which
        // never reached MailData.
        AppendMailData(request.text);
    }
    // The data phase ends in every outcome, a failed log-in or post included.
    DataMode = false;
    if (!MailData) core::Raise(core::ErrorNumber::kObjectNotSet);
    // A message the file could not take whole (a full disk) is refused, never relayed cut short.
    MailData->CheckWritten();
    const core::SpoolText text(MailData, 0,
                               MailData->Size() - std::min<std::uint64_t>(MailData->Size(), kEndOfData.size()));
    ConnectToHotmail();
    if (!LoggedIn) return Reply::Error(std::string(kCredentialsUnavailable));
    const RelayedText relayed = BuildMessage(text);
    ConnectionHotmail().SendMail(relayed.pieces, relayed.size);
    return Reply::Response("250 message queued");
}

frame::Reply CSmtpServer::HandleQUIT(const Request& /*request*/) {
    return Reply::Response("221 " + std::string(kMailDomain));
}

bool CSmtpServer::CredentialsAvailable() const {
    return core::Trap("CredentialsAvailable Method", [&] { return !Host().UserName().empty(); });
}

void CSmtpServer::ConnectToHotmail() {
    core::Trap("ConnectToHotmail Method", [&] {
        if (LoggedIn) return;
        if (!CredentialsAvailable()) return;
        mailservice::CHotmail& hotmail = ConnectionHotmail();
        // Read now, not at HELO: the store holds whatever the POP3 server received last.
        hotmail.SetUserName(Host().UserName());
        hotmail.SetPassword(Host().Password());
        // Its result says nothing: a refused log-in shows when SendMail finds no outbox address.
        hotmail.Connect();
        LoggedIn = true;
    });
}

CSmtpServer::RelayedText CSmtpServer::BuildMessage(const core::SpoolText& messageText) const {
    return core::Trap("BuildMessage Method", [&] {
        const std::string lines[] = {"MAIL FROM:" + MailFrom, "RCPT TO:" + RcptTo, {}};
        std::string head;
        for (const std::string& line : lines) head += FormatResponse(line);
        // As received: dot-stuffing and line ends stay as the client sent them. The CR LF and "." line after
        // it are the end mark the client sent.
        std::string tail = FormatResponse({}) + FormatResponse(".");
        const std::uint64_t size = head.size() + messageText.Size() + tail.size();
        return RelayedText{[head = std::move(head), messageText, tail = std::move(tail)] {
                               return std::make_unique<EnvelopedText>(head, messageText.Pieces(), tail);
                           },
                           size};
    });
}

void CSmtpServer::ResetConnectionState() { LoggedIn = false; }

void CSmtpServer::ResetSessionState() {
    DataMode = false;
    // The text of an unfinished message goes with the session.
    MailData.reset();
    MailDataTail.clear();
}

}  // namespace servers::smtp
