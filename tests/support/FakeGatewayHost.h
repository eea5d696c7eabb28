// A gateway host for server tests: records every log entry, owns two real socket controls on loopback and
// records errors that escape an event handler instead of ending the test program.
#pragma once

#include <QCoreApplication>

#include <string>
#include <vector>

#include "core/Error.h"
#include "core/IGatewayHost.h"
#include "core/Version.h"
#include "platform/net/SocketControl.h"

namespace tests {

class FakeGatewayHost : public core::IGatewayHost {
public:

    void WriteLog(const std::string& message) override { log.push_back(message); }
    void ClearLog() override {
        log.clear();
        ++clearCount;
    }
    std::string UserName() const override { return userName; }
    void SetUserName(const std::string& value) override { userName = value; }
    std::string Password() const override { return password; }
    void SetPassword(const std::string& value) override { password = value; }
    std::string ApplicationName() const override { return "Tarnwick Gateway"; }
    std::string ApplicationVersion() const override { return core::Version::kText; }
    core::ISocketControl& WinsockPOP3() override { return pop3_; }
    core::ISocketControl& WinsockSMTP() override { return smtp_; }
    void DoEvents() override { QCoreApplication::processEvents(); }

    std::vector<std::string> log;
    int clearCount = 0;
    std::string userName;
    std::string password;
    std::vector<core::Error> unhandled;

private:
    platform::net::SocketControl pop3_{[this](const core::Error& e) { unhandled.push_back(e); }};
    platform::net::SocketControl smtp_{[this](const core::Error& e) { unhandled.push_back(e); }};
};

}  // namespace tests
