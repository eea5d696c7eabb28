#include "servers/pop3/CPop3Server.h"

#include <algorithm>
#include <span>

#include "core/Collection.h"
#include "core/Error.h"
#include "core/Trap.h"
#include "servers/pop3/MPop3Responses.h"

namespace servers::pop3 {
namespace {

namespace R = MPop3Responses;

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
};

CPop3Server::CPop3Server(core::IGatewayHost& host) : ServerFrame(host, Pop3Profile()) { ClassInitialize(); }

void CPop3Server::HandleCONN(const std::string& /*request*/) { SendResponse(kGreeting); }

// USER and PASS check nothing and never reach the service: a wrong name or password shows at the first
// mailbox command. Both also go to the host's credential store, from which the SMTP server relays.
void CPop3Server::HandleUSER(const std::string& request) {
    SetUserName(GetArgument(request));
    Host().SetUserName(UserName());
    SendResponse(kSendPassword);
}

void CPop3Server::HandlePASS(const std::string& request) {
    SetPassword(GetArgument(request));
    Host().SetPassword(Password());
    SendResponse(kSendStat);
}

void CPop3Server::ConnectToHotmail() {
    core::Trap("ConnectToHotmail Method", [&] {
        if (MailboxLoaded) return;
        mailservice::CHotmail& hotmail = ConnectionHotmail();
        hotmail.SetUserName(UserName());
        hotmail.SetPassword(Password());
        // The result says nothing: a refused log-in shows as an empty inbox address, whose listing fails.
        hotmail.Connect();
        const std::string inbox = hotmail.InboxURL();
        hotmail.ParseMailboxInfo(inbox);
        Messages = hotmail.GetMailCollection();
        R::RemoveReadMessages(*Messages);
        MailboxSize = R::SumMessageSizes(*Messages);
        MessageCount = R::CountMessages(*Messages);
        MailboxLoaded = true;
    });
}

const mailservice::MessagePtr& CPop3Server::RequestedMessage(const std::string& request) const {
    return R::SelectMessage(*Messages, GetArgument(request));
}

void CPop3Server::HandleSTAT(const std::string& /*request*/) {
    ConnectToHotmail();
    SendResponse(R::BuildSTATResponse(MessageCount, MailboxSize));
}

void CPop3Server::HandleLIST(const std::string& request) {
    ConnectToHotmail();
    const std::string argument = GetArgument(request);
    if (argument.empty()) {
        SendResponse(R::BuildLISTResponse(*Messages, MessageCount, MailboxSize));
    } else {
        SendResponse(R::BuildLISTItemResponse(argument, *R::SelectMessage(*Messages, argument)));
    }
}

void CPop3Server::HandleUIDL(const std::string& request) {
    ConnectToHotmail();
    const std::string argument = GetArgument(request);
    if (argument.empty()) {
        SendResponse(R::BuildUIDLResponse(*Messages));
    } else {
        SendResponse(R::BuildUIDLItemResponse(argument, *R::SelectMessage(*Messages, argument)));
    }
}

void CPop3Server::HandleRETR(const std::string& request) {
    ConnectToHotmail();
    SendResponse(
        R::BuildRETRResponse(*RequestedMessage(request), Host().ApplicationName(), Host().ApplicationVersion()));
}

// The service moves the message to the trash folder at once. The loaded list stays as it is, so the
// message keeps its number, its place in STAT, LIST and UIDL, and its text for RETR until the connection ends.
void CPop3Server::HandleDELE(const std::string& request) {
    ConnectToHotmail();
    const mailservice::MessagePtr& message = RequestedMessage(request);
    const mailservice::IdCollectionPtr ids = core::MakeCollection<std::string>();
    ids->Add(message->mMessageID);
    mailservice::CHotmail& hotmail = ConnectionHotmail();
    hotmail.DeleteMail(ids, hotmail.InboxURL());
    SendResponse(kDeleted);
}

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
    Messages.reset();
}

}  // namespace servers::pop3
