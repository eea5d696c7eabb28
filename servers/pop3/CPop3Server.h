// The POP3 server: the shared frame with the POP3 command table, command-word and argument rules, the
// authorisation commands, the lazy log-in and inbox load, and the mailbox, retrieval and deletion commands.
#pragma once

#include <cstdint>
#include <string>

#include "core/IGatewayHost.h"
#include "mailservice/CHotmail.h"
#include "servers/frame/Command.h"
#include "servers/frame/ServerFrame.h"

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

private:
    void HandleCONN(const std::string& request) override;
    void HandleUSER(const std::string& request);
    void HandlePASS(const std::string& request);
    void HandleSTAT(const std::string& request);
    void HandleLIST(const std::string& request);
    void HandleUIDL(const std::string& request);
    void HandleRETR(const std::string& request);
    void HandleDELE(const std::string& request);
    void HandleQUIT(const std::string& request);

    // Logs the connection's service client in and loads the unread inbox, once per connection; an error
    // leaves the mailbox unloaded so that the next mailbox command tries again.
    void ConnectToHotmail();
    // The loaded record that the argument of `request` names by its message number.
    const mailservice::MessagePtr& RequestedMessage(const std::string& request) const;

    bool DispatchCommand(const std::string& request) override;
    std::string ExtractCommand(const std::string& text) const override;
    std::string ExtractArgument(const std::string& text) const override;
    void ReceiveRequest(const std::string& text) override;
    void SetServerDefaults() override;
    void ResetConnectionState() override;

    // Every word in dispatch order; words without a handler are answered with nothing.
    static const frame::Command<CPop3Server> kCommands[];

    // The unread inbox of the connection: the service client's own list, read messages removed.
    mailservice::MailCollectionPtr Messages;
    bool MailboxLoaded = false;
    std::int16_t MessageCount = 0;
    std::int32_t MailboxSize = 0;
};

}  // namespace servers::pop3
