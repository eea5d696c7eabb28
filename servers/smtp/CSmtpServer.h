// The SMTP server: the shared frame with the SMTP command table, command-word and argument rules, and the
// arrival handling that switches between command mode and message data mode.
#pragma once

#include <string>
#include <string_view>

#include "core/IGatewayHost.h"
#include "servers/frame/Command.h"
#include "servers/frame/ServerFrame.h"

namespace servers::smtp {

class CSmtpServer : public frame::ServerFrame {
public:
    // A server on the host's WinsockSMTP with ListenPort "25"; it listens only after StartServer.
    explicit CSmtpServer(core::IGatewayHost& host);

    // The fixed mail domain named in the greeting and in the reply to QUIT.
    static constexpr std::string_view kMailDomain = "tarnwick.local";

    // Whether `chunk` ends with the end-of-data mark CR LF "." CR LF.
    static bool IsEndOfData(const std::string& chunk);

private:
    void HandleCONN(const std::string& request) override;
    void HandleQUIT(const std::string& request);

    bool DispatchCommand(const std::string& request) override;
    std::string ExtractCommand(const std::string& text) const override;
    std::string ExtractArgument(const std::string& text) const override;
    void ReceiveRequest(const std::string& text) override;
    void SetServerDefaults() override;
    void ResetConnectionState() override;
    void ResetSessionState() override;

    // Every word in dispatch order; words without a handler here are answered as unrecognised.
    static const frame::Command<CSmtpServer> kCommands[];

    // The connection's service client has been logged in.
    bool LoggedIn = false;
    // From an accepted DATA until the end of the data: arrivals are message chunks, not commands.
    bool DataMode = false;
};

}  // namespace servers::smtp
