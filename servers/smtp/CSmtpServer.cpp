#include "servers/smtp/CSmtpServer.h"

#include <algorithm>
#include <span>

#include "core/Trap.h"
#include "mailservice/CHotmail.h"

namespace servers::smtp {
namespace {

constexpr std::string_view kEndOfData = "\r\n.\r\n";
// The end mark's own share after the last line's CR LF: the relayed text gets its "." line from BuildMessage.
constexpr std::size_t kEndLineLength = 3;

frame::ServerProfile SmtpProfile() {
    return frame::ServerProfile{
        .socketControl = &core::IGatewayHost::WinsockSMTP,
        .defaultListenPort = "25",
        .errorPrefix = "500 ",
        .unrecognisedCommandText = "Tarnwick/SMTP Gateway Server does not understand the command: ",
        .logsSendEvents = false,
        .classInitializeLabel = "CSmtpServer Class_Initialize Event",
    };
}

}  // namespace

const frame::Command<CSmtpServer> CSmtpServer::kCommands[] = {
    {"CONN", &CSmtpServer::HandleCONN}, {"HELO", &CSmtpServer::HandleHELO}, {"MAIL", &CSmtpServer::HandleMAIL},
    {"RCPT", &CSmtpServer::HandleRCPT}, {"DATA", &CSmtpServer::HandleDATA}, {"MESG", &CSmtpServer::HandleMESG},
    {"SEND", &CSmtpServer::HandleSEND}, {"QUIT", &CSmtpServer::HandleQUIT},
};

CSmtpServer::CSmtpServer(core::IGatewayHost& host) : ServerFrame(host, SmtpProfile()) { ClassInitialize(); }

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

void CSmtpServer::HandleCONN(const std::string& /*request*/) { SendResponse("220 " + std::string(kMailDomain)); }

// A refused HELO does not end the dialogue: no command depends on an earlier one.
void CSmtpServer::HandleHELO(const std::string& /*request*/) {
    if (CredentialsAvailable()) {
        SendResponse("250 hello");
    } else {
        SendErrorResponse(std::string(kCredentialsUnavailable));
    }
}

void CSmtpServer::HandleMAIL(const std::string& request) {
    MailFrom = GetArgument(request);
    SendResponse("250 ok");
}

// One recipient only: a later RCPT replaces the earlier one.
void CSmtpServer::HandleRCPT(const std::string& request) {
    RcptTo = GetArgument(request);
    SendResponse("250 ok");
}

void CSmtpServer::HandleDATA(const std::string& /*request*/) {
    DataMode = true;
    MailData.clear();
    SendResponse("354 ok");
}

// Every chunk is answered, not only the last one, and the answers stay out of the log.
void CSmtpServer::HandleMESG(const std::string& request) {
    MailData += request;
    SendUnloggedResponse("250 ok");
}

void CSmtpServer::HandleSEND(const std::string& request) {
    if (DataMode) {
        // Clients send their last lines together with the end mark; those lines belong to the message, the
        // mark's "." line does not.
        MailData += request;
        MailData.resize(MailData.size() - kEndLineLength);
    }
    // The data phase ends in every outcome, a failed log-in or post included.
    DataMode = false;
    ConnectToHotmail();
    if (LoggedIn) {
        ConnectionHotmail().SendMail(BuildMessage(MailData));
        SendResponse("250 message queued");
    } else {
        SendErrorResponse(std::string(kCredentialsUnavailable));
    }
}

void CSmtpServer::HandleQUIT(const std::string& /*request*/) { SendResponse("221 " + std::string(kMailDomain)); }

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
        // As received: dot-stuffing and line ends stay as the client sent them.
        text += messageText;
        text += FormatResponse({});
        text += FormatResponse(".");
        return text;
    });
}

bool CSmtpServer::DispatchCommand(const std::string& request) {
    return DispatchFrom<CSmtpServer>(kCommands, *this, request);
}

std::string CSmtpServer::ExtractCommand(const std::string& text) const {
    const std::size_t space = text.find(' ');
    const std::size_t length = space == std::string::npos ? text.size() : space;
    ToCount16(length);
    return RemoveCrLf(UpperCase(text.substr(0, length)));
}

std::string CSmtpServer::ExtractArgument(const std::string& text) const {
    const std::string s = RemoveCrLf(text);
    ToCount16(s.size());
    const std::size_t colon = s.find(':');
    if (colon == std::string::npos) return {};
    const std::size_t first = s.find_first_not_of(' ', colon + 1);
    if (first == std::string::npos) return {};
    return s.substr(first, s.find_last_not_of(' ') - first + 1);
}

void CSmtpServer::ReceiveRequest(const std::string& text) {
    if (DataMode) {
        const std::size_t end = FindEndOfData(MailData, text);
        if (end != std::string::npos && end < text.size()) {
            // The end mark ends the data. A client that took the reply to an early chunk for the reply to its
            // end of data has sent QUIT already, and it may come in the same arrival as the last chunk.
            ReceiveRequest(text.substr(0, end));
            ReceiveRequest(text.substr(end));
            return;
        }
        // Message chunks are not logged; only the end mark tells the last chunk from the others.
        SetLastCommand(end != std::string::npos ? "SEND" : "MESG");
    } else {
        GetCommand(text);
        Host().WriteLog("SOCKET_EVENT: OnDataArrival Fired");
        Host().WriteLog("CLIENT_REQUEST: " + LastCommand());
    }
    DispatchRequest(text);
}

void CSmtpServer::SetServerDefaults() {
    LoggedIn = false;
    DataMode = false;
}

void CSmtpServer::ResetConnectionState() { LoggedIn = false; }

void CSmtpServer::ResetSessionState() { DataMode = false; }

}  // namespace servers::smtp
