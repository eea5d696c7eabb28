// Harness for the server tests: a recording gateway host, the waits on the log, and a fixture with one server
// on a free loopback port and a scripted WebDAV service.
#pragma once

#include <QCoreApplication>
#include <QTest>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "core/Error.h"
#include "core/IGatewayHost.h"
#include "core/MErrorHandler.h"
#include "core/MessageBox.h"
#include "core/Version.h"
#include "mailservice/CHotmail.h"
#include "platform/net/SocketControl.h"
#include "tests/support/FakeWebDavService.h"
#include "tests/support/LineClient.h"

namespace server_tests {

// A real socket control that counts the arrivals its server has read, so that a test can wait for one.
class CountingSocketControl : public platform::net::SocketControl {
public:
    using SocketControl::SocketControl;
    std::string GetData() override {
        ++reads;
        return SocketControl::GetData();
    }
    int reads = 0;
};

// A gateway host that records every log entry, owns two counting socket controls on loopback and records errors
// that escape an event handler instead of ending the test program.
class FakeGatewayHost : public core::IGatewayHost {
public:
    void WriteLog(const std::string& message) override { log.push_back(message); }
    void ClearLog() override { log.clear(); }
    std::string UserName() const override { return userName; }
    void SetUserName(const std::string& value) override { userName = value; }
    std::string Password() const override { return password; }
    void SetPassword(const std::string& value) override { password = value; }
    std::string ApplicationName() const override { return "Tarnwick Gateway"; }
    std::string ApplicationVersion() const override { return core::Version::kText; }
    core::ISocketControl& WinsockPOP3() override { return pop3; }
    core::ISocketControl& WinsockSMTP() override { return smtp; }
    void DoEvents() override { QCoreApplication::processEvents(); }

    std::vector<std::string> log;
    std::string userName;
    std::string password;
    std::vector<core::Error> unhandled;
    CountingSocketControl pop3{[this](const core::Error& e) { unhandled.push_back(e); }};
    CountingSocketControl smtp{[this](const core::Error& e) { unhandled.push_back(e); }};
};

// One started `Server` and the service its connections reach, which knows the account "sam" / "sam pw".
template <typename Server>
class ServerTest : public ::testing::Test {
protected:
    void SetUp() override {
        core::MErrorHandler::ResetForTesting();
        core::MessageBox::SetHandler([](const std::string&) {});
        mailservice::CHotmail::SetServiceEntryURL(svc.Url(testing_support::kEntryPath));
        server.SetListenPort(port);
        server.StartServer();
    }
    void TearDown() override {
        server.StopServer();
        EXPECT_TRUE(host.unhandled.empty()) << host.unhandled.front().Description();
    }

    bool WaitForLog(const std::string& entry) {
        return QTest::qWaitFor([&] { return std::find(host.log.begin(), host.log.end(), entry) != host.log.end(); },
                               testing_support::kTimeoutMs);
    }

    testing_support::FakeWebDavService svc{"sam", "sam pw"};
    FakeGatewayHost host;
    Server server{host};
    std::string port = testing_support::FreePort();
};

}  // namespace server_tests
