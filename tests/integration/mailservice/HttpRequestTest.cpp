// How the request layer fails: each cause with its own number. (What goes on the wire is checked through the
// service client's requests.)
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "tests/support/FakeWebDavService.h"
#include "core/Error.h"
#include "platform/http/HttpRequest.h"
#include "tests/support/RaisedError.h"

namespace {

using platform::HttpRequest;
using testing_support::FakeWebDavService;
using testing_support::RaisedErrorNumber;
using testing_support::ScriptedReply;
namespace ErrorNumber = core::ErrorNumber;

TEST(HttpRequestTest, FailuresCarryTheRequestLayersNumbers) {
    FakeWebDavService svc;
    svc.Enqueue(ScriptedReply{200, {}, "partial", true});
    const std::string refused = "http://127.0.0.1:" + std::to_string(testing_support::ClosedLoopbackPort()) + "/";
    const struct {
        const char* what;
        std::string url;
        std::int32_t number;
    } cases[] = {
        {"empty address", "", ErrorNumber::kHttpInvalidUrl},
        {"not an address", "http://[::1", ErrorNumber::kHttpInvalidUrl},
        {"unknown scheme", "ftp://127.0.0.1/x", ErrorNumber::kHttpUnrecognizedScheme},
        {"refused", refused, ErrorNumber::kHttpCannotConnect},
        {"reply cut short", svc.Url("/cut"), ErrorNumber::kHttpConnectionAborted},
    };
    HttpRequest http;
    for (const auto& c : cases) {
        http.Open("GET", c.url);
        EXPECT_EQ(RaisedErrorNumber([&] { http.Send(); }), c.number) << c.what;
        EXPECT_EQ(http.ResponseText(), "") << c.what;
    }
}

// Short limits for one test; the defaults come back afterwards.
class Limited {
public:
    explicit Limited(platform::HttpLimits limits) : saved_(HttpRequest::Limits()) { HttpRequest::SetLimits(limits); }
    ~Limited() { HttpRequest::SetLimits(saved_); }
    Limited(const Limited&) = delete;
    Limited& operator=(const Limited&) = delete;

private:
    platform::HttpLimits saved_;
};

// A port on 127.0.0.1 whose connections the system accepts but no one ever reads or answers.
class SilentPort {
public:
    SilentPort() : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof addr;
        if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&addr), size) != 0 || listen(fd_, 4) != 0 ||
            getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &size) != 0) {
            ADD_FAILURE() << "cannot listen";
        }
        port_ = ntohs(addr.sin_port);
    }
    ~SilentPort() { close(fd_); }
    SilentPort(const SilentPort&) = delete;
    SilentPort& operator=(const SilentPort&) = delete;
    std::string Url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }

private:
    int fd_;
    std::uint16_t port_ = 0;
};

TEST(HttpRequestTest, SilenceEndsTheRequestButASlowReplyThatKeepsComingIsKept) {
    const Limited limits({60, 1, 1000});
    SilentPort silent;
    FakeWebDavService svc;
    const std::string slow(1000, 's');
    // About 2.4 s in all, far beyond the idle limit, but never a whole second without a byte.
    svc.Enqueue(ScriptedReply{200, {}, slow, false, std::chrono::milliseconds(600)});
    svc.Enqueue(ScriptedReply{200, {}, "after", false});

    HttpRequest http;
    // Without a body: libcurl averages its speed over about five seconds, so after a sent body the idle limit
    // would only start counting once that average had fallen.
    http.Open("PROPFIND", silent.Url());
    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(RaisedErrorNumber([&] { http.Send(); }), ErrorNumber::kHttpTimedOut);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(4));
    EXPECT_EQ(http.ResponseText(), "");

    http.Open("GET", svc.Url("/slow"));
    http.Send();
    EXPECT_EQ(http.ResponseText(), slow);
    http.Open("GET", svc.Url("/next"));
    http.Send();
    EXPECT_EQ(http.ResponseText(), "after");
}

TEST(HttpRequestTest, AReplyBeyondTheLimitIsRefusedAndNothingOfItKept) {
    const Limited limits({60, 30, 1000});
    FakeWebDavService svc;
    const struct {
        const char* what;
        std::string body;
        bool breakOff;
        std::int32_t number;  // 0: the whole body is read
    } cases[] = {
        {"exactly the limit", std::string(1000, 'a'), false, 0},
        {"one byte more", std::string(1001, 'b'), false, ErrorNumber::kHttpReplyTooLarge},
        {"far more announced, then broken off: refused before any is kept", std::string(300000, 'c'), true, ErrorNumber::kHttpReplyTooLarge},
        {"small again: the object still works", "small", false, 0},
    };
    HttpRequest http;
    for (const auto& c : cases) {
        svc.Enqueue(ScriptedReply{200, {}, c.body, c.breakOff});
        http.Open("GET", svc.Url("/m"));
        EXPECT_EQ(RaisedErrorNumber([&] { http.Send(); }), c.number) << c.what;
        EXPECT_EQ(http.ResponseText(), c.number == 0 ? c.body : "") << c.what;
    }
    // A body handed to a sink (kept on disk) is held to the same limit: the sink never gets more.
    for (const auto& c : cases) {
        svc.Enqueue(ScriptedReply{200, {}, c.body, c.breakOff});
        http.Open("GET", svc.Url("/m"));
        std::string sunk;
        http.SetResponseSink([&](std::string_view piece) { sunk += piece; });
        EXPECT_EQ(RaisedErrorNumber([&] { http.Send(); }), c.number) << c.what << ", to a sink";
        EXPECT_EQ(http.ResponseText(), "") << c.what << ", to a sink";
        if (c.number == 0) {
            EXPECT_EQ(sunk, c.body) << c.what << ", to a sink";
        } else {
            EXPECT_LE(sunk.size(), 1000U) << c.what << ", to a sink";
        }
    }
}

}  // namespace
