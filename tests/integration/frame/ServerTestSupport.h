// Harness for the server tests: a mail reader's side of one loopback connection, the waits on the log, and a
// fixture with one server on a free loopback port, a recording host and a scripted WebDAV service.
#pragma once

#include <QTest>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "core/MErrorHandler.h"
#include "core/MessageBox.h"
#include "mailservice/CHotmail.h"
#include "tests/support/FakeGatewayHost.h"
#include "tests/support/FakeWebDavService.h"
#include "tests/support/HotmailTestSupport.h"
#include "tests/support/LineClient.h"

namespace server_tests {

inline constexpr int kTimeoutMs = 30000;

using testing_support::FreePort;

// One started `Server` and the service its connections reach, which knows the account "sam" / "sam pw".
template <typename Server>
class ServerTest : public ::testing::Test {
protected:
    void SetUp() override {
        core::MErrorHandler::ResetForTesting();
        core::MessageBox::SetHandler([](const std::string&) {});
        mailservice::CHotmail::SetServiceEntryURL(svc.Url(hotmail_test::kEntryPath));
        server.SetListenPort(port);
        server.StartServer();
    }
    void TearDown() override {
        server.StopServer();
        EXPECT_TRUE(host.unhandled.empty()) << host.unhandled.front().Description();
    }

    // Queues the replies of one log-in: the entry address, then the folder listing.
    void ScriptLogIn() {
        svc.Enqueue(testing_support::DavReply(hotmail_test::LoginReply(
            svc.Url("/base"), {svc.Url("/ad"), svc.Url("/contacts"), svc.Url("/inbox"), svc.Url("/out"),
                               svc.Url("/sent"), svc.Url("/trash"), svc.Url("/root")})));
        svc.Enqueue(testing_support::DavReply(hotmail_test::FolderReply({{svc.Url("/inbox"), "Inbox"}})));
    }
    // Waits until `entry` is in the log at least `times` times.
    bool WaitForLog(const std::string& entry, long times = 1) {
        return QTest::qWaitFor([&] { return std::count(host.log.begin(), host.log.end(), entry) >= times; },
                               kTimeoutMs);
    }

    testing_support::FakeWebDavService svc{testing_support::FakeWebDavService::Auth::Basic, "sam", "sam pw"};
    tests::FakeGatewayHost host;
    Server server{host};
    std::string port = FreePort();
};

}  // namespace server_tests
