// The POP3 server: the shared frame with the POP3 command table, command-word and argument rules.
#pragma once

#include <cstdint>
#include <string>

#include "core/IGatewayHost.h"
#include "servers/frame/Command.h"
#include "servers/frame/ServerFrame.h"

namespace servers::pop3 {

class CPop3Server : public frame::ServerFrame {
public:
    // A server on the host's WinsockPOP3 with ListenPort "110"; it listens only after StartServer.
    explicit CPop3Server(core::IGatewayHost& host);

    static constexpr const char* kGreeting = "+OK Tarnwick/POP3 Gateway Server - Hello";
    static constexpr const char* kFarewell = "+OK Tarnwick/POP3 Gateway Server - Good-Bye";

private:
    void HandleCONN(const std::string& request) override;
    void HandleQUIT(const std::string& request);

    bool DispatchCommand(const std::string& request) override;
    std::string ExtractCommand(const std::string& text) const override;
    std::string ExtractArgument(const std::string& text) const override;
    void ReceiveRequest(const std::string& text) override;
    void SetServerDefaults() override;
    void ResetConnectionState() override;

    // Every word in dispatch order; words without a handler here are answered as unrecognised.
    static const frame::Command<CPop3Server> kCommands[];

    // The mailbox of the connection, loaded at its first mailbox command.
    bool MailboxLoaded = false;
    std::int16_t MessageCount = 0;
    std::int32_t MailboxSize = 0;
};

}  // namespace servers::pop3
