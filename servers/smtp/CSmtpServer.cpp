#include "servers/smtp/CSmtpServer.h"

#include <algorithm>
#include <utility>

#include "core/Ascii.h"
#include "core/Trap.h"
#include "mailservice/CHotmail.h"

namespace servers::smtp {
namespace {

constexpr std::string_view kEndOfData = "\r\n.\r\n";

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
    const std::size_t end = FindEndOfData(MailData, arrival);
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
    DataMode = true;
    MailData.clear();
    return Reply::Response("354 ok");
}

// Every chunk is answered, not only the last one, and the answers stay out of the log. The answer is held
// until the client waits for it: a mail reader that streams its message must find the reply to its end of
// data first when it reads (the frame's held replies).
frame::Reply CSmtpServer::HandleMESG(const Request& request) {
    MailData += request.text;
    return Reply::Held("250 ok");
}

frame::Reply CSmtpServer::HandleSEND(const Request& request) {
    if (DataMode) {
        // Clients send their last lines together with the end mark; those lines belong to the message, the
        // mark's five bytes do not (BuildMessage puts back its CR LF and "." line, so that the relayed text
        // ends as the client's data did). Right after DATA the mark starts with that line's own CR LF, which
        // never reached MailData.
        MailData += request.text;
        MailData.resize(MailData.size() - std::min(MailData.size(), kEndOfData.size()));
    }
    // The data phase ends in every outcome, a failed log-in or post included.
    DataMode = false;
    ConnectToHotmail();
    if (!LoggedIn) return Reply::Error(std::string(kCredentialsUnavailable));
    ConnectionHotmail().SendMail(BuildMessage(MailData));
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

std::string CSmtpServer::BuildMessage(const std::string& messageText) const {
    return core::Trap("BuildMessage Method", [&] {
        const std::string lines[] = {"MAIL FROM:" + MailFrom, "RCPT TO:" + RcptTo, {}};
        std::string text;
        text.reserve(MailFrom.size() + RcptTo.size() + messageText.size() + 32);
        for (const std::string& line : lines) text += FormatResponse(line);
        // As received: dot-stuffing and line ends stay as the client sent them. The CR LF and "." line after
        // it are the end mark the client sent.
        text += messageText;
        text += FormatResponse({});
        text += FormatResponse(".");
        return text;
    });
}

void CSmtpServer::ResetConnectionState() { LoggedIn = false; }

void CSmtpServer::ResetSessionState() { DataMode = false; }

}  // namespace servers::smtp
