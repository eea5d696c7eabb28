#include "servers/pop3/CPop3Server.h"

#include <algorithm>
#include <span>

namespace servers::pop3 {
namespace {

// The POP3 command word is the first four characters, whatever they are.
constexpr std::size_t kCommandWordLength = 4;

frame::ServerProfile Pop3Profile() {
    return frame::ServerProfile{
        .socketControl = &core::IGatewayHost::WinsockPOP3,
        .defaultListenPort = "110",
        .errorPrefix = "-ERR ",
        .unrecognisedCommandText = "Tarnwick/POP3 Gateway Server does not understand the command: ",
        .logsSendEvents = true,
        .classInitializeLabel = "CPop3Server Class_Initialize Event",
    };
}

}  // namespace

const frame::Command<CPop3Server> CPop3Server::kCommands[] = {
    {"CONN", &CPop3Server::HandleCONN},
    {"TOP", nullptr},
    {"NOOP", nullptr},
    {"RSET", nullptr},
    {"QUIT", &CPop3Server::HandleQUIT},
};

CPop3Server::CPop3Server(core::IGatewayHost& host) : ServerFrame(host, Pop3Profile()) { ClassInitialize(); }

void CPop3Server::HandleCONN(const std::string& /*request*/) { SendResponse(kGreeting); }

void CPop3Server::HandleQUIT(const std::string& /*request*/) { SendResponse(kFarewell); }

bool CPop3Server::DispatchCommand(const std::string& request) {
    return DispatchFrom<CPop3Server>(kCommands, *this, request);
}

std::string CPop3Server::ExtractCommand(const std::string& text) const {
    // Untrimmed on purpose: "TOP 1 5" yields "TOP " and so does not match the bare "TOP" entry.
    return UpperCase(text.substr(0, std::min(text.size(), kCommandWordLength)));
}

std::string CPop3Server::ExtractArgument(const std::string& text) const {
    const std::string s = RemoveCrLf(text);
    ToCount16(s.size());
    const std::size_t space = s.find(' ');
    if (space == std::string::npos) return {};
    return s.substr(space + 1);
}

void CPop3Server::ReceiveRequest(const std::string& text) {
    Host().WriteLog("SOCKET_EVENT: OnDataArrival Fired");
    Host().WriteLog("CLIENT_REQUEST: " + text);
    GetCommand(text);
    DispatchRequest(text);
}

void CPop3Server::SetServerDefaults() { MailboxLoaded = false; }

void CPop3Server::ResetConnectionState() {
    MailboxLoaded = false;
    MessageCount = 0;
    MailboxSize = 0;
}

}  // namespace servers::pop3
