#include "servers/pop3/CPop3Server.h"

#include <algorithm>

#include "core/Ascii.h"
#include "core/Trap.h"
#include "mailservice/CHotmail.h"
#include "servers/pop3/MPop3Responses.h"

namespace servers::pop3 {
namespace {

namespace R = MPop3Responses;

// The POP3 command word is the first four characters, whatever they are.
constexpr std::size_t kCommandWordLength = 4;

frame::ServerProfile Pop3Profile() {
    return frame::ServerProfile{
        .socketControl = &core::IGatewayHost::WinsockPOP3,
        .serverName = "POP3 server",
        .defaultListenPort = "110",
        .errorPrefix = "-ERR ",
        .unrecognisedCommandText = "Tarnwick/POP3 Gateway Server does not understand the command: ",
        .logsSendEvents = true,
        .classInitializeLabel = "CPop3Server Class_Initialize Event",
        .getCommand = &CPop3Server::GetCommand,
        .getArgument = &CPop3Server::GetArgument,
        .requestEntry = frame::ServerProfile::RequestEntry::kReceivedText,
    };
}

}  // namespace

CPop3Server::CPop3Server(core::IGatewayHost& host)
    : ServerFrame(host, Pop3Profile(),
                  // Every word in dispatch order; TOP, NOOP and RSET are answered with nothing.
                  frame::BindCommands<CPop3Server>(*this, {
                                                              {"CONN", &CPop3Server::HandleCONN},
                                                              {"USER", &CPop3Server::HandleUSER},
                                                              {"PASS", &CPop3Server::HandlePASS},
                                                              {"STAT", &CPop3Server::HandleSTAT},
                                                              {"LIST", &CPop3Server::HandleLIST},
                                                              {"TOP", nullptr},
                                                              {"RETR", &CPop3Server::HandleRETR},
                                                              {"DELE", &CPop3Server::HandleDELE},
                                                              {"NOOP", nullptr},
                                                              {"RSET", nullptr},
                                                              {"UIDL", &CPop3Server::HandleUIDL},
                                                              {"QUIT", &CPop3Server::HandleQUIT},
                                                          })) {}

std::string CPop3Server::GetCommand(std::string_view text) {
    // Untrimmed on purpose: "TOP 1 5" yields "TOP " and so does not match the bare "TOP" entry.
    return core::Ascii::UpperCase(std::string(text.substr(0, std::min(text.size(), kCommandWordLength))));
}

std::string CPop3Server::GetArgument(std::string_view text) {
    const std::string s = RemoveCrLf(text);
    if (!FitsCount16(s.size())) return {};
    const std::size_t space = s.find(' ');
    if (space == std::string::npos) return {};
    return s.substr(space + 1);
}

frame::Reply CPop3Server::HandleCONN(const Request& /*request*/) { return Reply::Response(kGreeting); }

// USER and PASS check nothing and never reach the service: a wrong name or password shows at the first
// mailbox command. Both also go to the host's credential store, from which the SMTP server relays.
frame::Reply CPop3Server::HandleUSER(const Request& request) {
    SetUserName(request.argument);
    Host().SetUserName(UserName());
    return Reply::Response(kSendPassword);
}

frame::Reply CPop3Server::HandlePASS(const Request& request) {
    SetPassword(request.argument);
    Host().SetPassword(Password());
    return Reply::Response(kSendStat);
}

void CPop3Server::ConnectToHotmail() {
    core::Trap("ConnectToHotmail Method", [&] {
        if (Mailbox.MailboxLoaded()) return;
        mailservice::CHotmail& hotmail = ConnectionHotmail();
        hotmail.SetUserName(UserName());
        hotmail.SetPassword(Password());
        Mailbox.Load(hotmail);
    });
}

frame::Reply CPop3Server::HandleSTAT(const Request& /*request*/) {
    ConnectToHotmail();
    return Reply::Response(R::BuildSTATResponse(Mailbox.MessageCount(), Mailbox.MailboxSize()));
}

frame::Reply CPop3Server::HandleLIST(const Request& request) {
    ConnectToHotmail();
    if (request.argument.empty()) {
        return Reply::Response(R::BuildLISTResponse(Mailbox.Messages(), Mailbox.MessageCount(), Mailbox.MailboxSize()));
    }
    return Reply::Response(R::BuildLISTItemResponse(request.argument, Mailbox.Select(request.argument)));
}

frame::Reply CPop3Server::HandleUIDL(const Request& request) {
    ConnectToHotmail();
    if (request.argument.empty()) return Reply::Response(R::BuildUIDLResponse(Mailbox.Messages()));
    return Reply::Response(R::BuildUIDLItemResponse(request.argument, Mailbox.Select(request.argument)));
}

frame::Reply CPop3Server::HandleRETR(const Request& request) {
    ConnectToHotmail();
    // The message is read from its spool file as the client takes it, never whole into memory. The record
    // stays with the loaded mailbox, and the reply keeps its own share of it while the socket and the log read.
    const mailservice::CHotmailMessage& message = Mailbox.Select(request.argument);
    return Reply::StreamedResponse([message, name = Host().ApplicationName(), version = Host().ApplicationVersion()] {
        return R::RETRResponsePieces(message, name, version);
    });
}

// The loaded view stays as it is, so the message keeps its number, its place in STAT, LIST and UIDL, and its
// text for RETR until the connection ends.
frame::Reply CPop3Server::HandleDELE(const Request& request) {
    ConnectToHotmail();
    Mailbox.Delete(ConnectionHotmail(), request.argument);
    return Reply::Response(kDeleted);
}

frame::Reply CPop3Server::HandleQUIT(const Request& /*request*/) { return Reply::Response(kFarewell); }

void CPop3Server::ResetConnectionState() { Mailbox = CPop3Mailbox(); }

}  // namespace servers::pop3
