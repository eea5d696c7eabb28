// The POP3 server: the shared frame with the POP3 command table and rules, the authorisation commands, and
// the mailbox, retrieval and deletion commands answered from the connection's CPop3Mailbox.
#pragma once

#include <string>
#include <string_view>

#include "core/IGatewayHost.h"
#include "servers/frame/Reply.h"
#include "servers/frame/Request.h"
#include "servers/frame/ServerFrame.h"
#include "servers/pop3/CPop3Mailbox.h"

namespace servers::pop3 {

class CPop3Server : public frame::ServerFrame {
public:
    // A server on the host's WinsockPOP3 with ListenPort "110"; it listens only after StartServer.
    explicit CPop3Server(core::IGatewayHost& host);

    // The fixed answers: greeting, farewell, and the replies to USER, PASS and DELE.
    static constexpr const char* kGreeting = "+OK Tarnwick/POP3 Gateway Server - Hello";
    static constexpr const char* kFarewell = "+OK Tarnwick/POP3 Gateway Server - Good-Bye";
    static constexpr const char* kSendPassword = "+OK send password";
    static constexpr const char* kSendStat = "+OK send stat";
    static constexpr const char* kDeleted = "+OK msg deleted";

    // The command word: the first four characters, upper-cased, untrimmed ("TOP 1 5" gives "TOP ").
    static std::string GetCommand(std::string_view text);
    // The argument: everything after the first space, untrimmed, with every CR LF removed; empty without a
    // space or for a text beyond 16-bit counts.
    static std::string GetArgument(std::string_view text);

private:
    using Request = frame::Request;
    using Reply = frame::Reply;

    Reply HandleCONN(const Request& request);
    Reply HandleUSER(const Request& request);
    Reply HandlePASS(const Request& request);
    Reply HandleSTAT(const Request& request);
    Reply HandleLIST(const Request& request);
    Reply HandleUIDL(const Request& request);
    Reply HandleRETR(const Request& request);
    Reply HandleDELE(const Request& request);
    Reply HandleQUIT(const Request& request);

    // Logs the connection's service client in and loads the mailbox, once per connection; an error leaves
    // the mailbox unloaded so that the next mailbox command tries again.
    void ConnectToHotmail();

    // The mailbox goes with the connection's service client.
    void ResetConnectionState() override;

    CPop3Mailbox Mailbox;
};

}  // namespace servers::pop3
