#include "servers/smtp/CSmtpServer.h"

#include <span>

namespace servers::smtp {
namespace {

constexpr std::string_view kEndOfData = "\r\n.\r\n";

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
    {"CONN", &CSmtpServer::HandleCONN},
    {"QUIT", &CSmtpServer::HandleQUIT},
};

CSmtpServer::CSmtpServer(core::IGatewayHost& host) : ServerFrame(host, SmtpProfile()) { ClassInitialize(); }

bool CSmtpServer::IsEndOfData(const std::string& chunk) { return chunk.ends_with(kEndOfData); }

void CSmtpServer::HandleCONN(const std::string& /*request*/) { SendResponse("220 " + std::string(kMailDomain)); }

void CSmtpServer::HandleQUIT(const std::string& /*request*/) { SendResponse("221 " + std::string(kMailDomain)); }

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
        // Message chunks are not logged; only the end mark tells the last chunk from the others.
        SetLastCommand(IsEndOfData(text) ? "SEND" : "MESG");
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
