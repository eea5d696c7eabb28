// The request layer against a recording fake service: what goes on the wire, what comes back, how it fails.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "FakeWebDavService.h"
#include "core/Error.h"
#include "platform/http/HttpRequest.h"
#include "tests/support/RaisedError.h"

using platform::HttpRequest;
using testing_support::DavReply;
using testing_support::FakeWebDavService;
using testing_support::ScriptedReply;

namespace {

using testing_support::RaisedErrorNumber;

TEST(HttpRequestTest, CustomMethodWithoutBodySendsNoLengthAndNoAddedHeaders) {
    FakeWebDavService svc;
    svc.Enqueue(DavReply("ok"));
    HttpRequest http;
    http.Open("PROPFIND", svc.Url("/a"));
    http.SetRequestHeader("X-One", "1");
    http.Send();
    const auto req = svc.Requests().at(0);
    EXPECT_EQ(req.method, "PROPFIND");
    EXPECT_EQ(req.body, "");
    EXPECT_FALSE(req.Header("Content-Length"));
    EXPECT_EQ(req.ExtraHeaderNames(), std::vector<std::string>{"X-One"});
}

TEST(HttpRequestTest, LargeBodyGoesOutWholeWithoutExpectOrFormType) {
    FakeWebDavService svc;
    svc.Enqueue(DavReply("ok"));
    std::string body(2 * 1024 * 1024, 'x');
    body[0] = '\0';
    body[1] = '\xE9';
    HttpRequest http;
    http.Open("BMOVE", svc.Url("/big"));
    http.Send(body);
    const auto req = svc.Requests().at(0);
    EXPECT_EQ(req.body, body);
    EXPECT_TRUE(req.ExtraHeaderNames().empty()) << req.ExtraHeaderNames().front();
}

TEST(HttpRequestTest, EmptyHeaderValueStillGoesOutInOrder) {
    FakeWebDavService svc;
    svc.Enqueue(DavReply("ok"));
    HttpRequest http;
    http.Open("BMOVE", svc.Url("/f"));
    http.SetRequestHeader("Destination", "");
    http.SetRequestHeader("Content-Type", "text/xml");
    http.Send("<x/>");
    const auto req = svc.Requests().at(0);
    EXPECT_EQ(req.ExtraHeaderNames(), (std::vector<std::string>{"Destination", "Content-Type"}));
    EXPECT_EQ(req.Header("Destination"), "");
}

TEST(HttpRequestTest, ReplyHeadersAndBodyAreReadAsSent) {
    FakeWebDavService svc;
    svc.Enqueue(ScriptedReply{404, {{"X-Dav-Error", "404 Not found"}, {"X-Other", "v"}}, "caf\xC3\xA9\xFF", false});
    svc.Enqueue(ScriptedReply{200, {}, "second", false});
    HttpRequest http;
    http.Open("GET", svc.Url("/m"));
    http.Send();
    EXPECT_EQ(http.ResponseText(), "caf\xC3\xA9\xFF");
    EXPECT_EQ(http.GetResponseHeader("x-dav-error"), "404 Not found");
    const std::string block = http.GetAllResponseHeaders();
    EXPECT_NE(block.find("X-Dav-Error: 404 Not found\r\n"), std::string::npos) << block;
    EXPECT_NE(block.find("X-Other: v\r\n"), std::string::npos) << block;

    // The next request's reply replaces the previous one entirely.
    http.Open("GET", svc.Url("/n"));
    http.Send();
    EXPECT_EQ(http.ResponseText(), "second");
    EXPECT_EQ(RaisedErrorNumber([&] { http.GetResponseHeader("X-Dav-Error"); }), platform::HttpError::kHeaderNotFound);
}

TEST(HttpRequestTest, FailuresCarryTheRequestLayersNumbers) {
    FakeWebDavService svc;
    svc.Enqueue(ScriptedReply{200, {}, "partial", true});
    const std::string refused = "http://127.0.0.1:" + std::to_string(testing_support::ClosedLoopbackPort()) + "/";
    struct Case {
        const char* what;
        std::string url;
        std::int32_t number;
    };
    const Case cases[] = {
        {"empty address", "", platform::HttpError::kInvalidUrl},
        {"not an address", "http://[::1", platform::HttpError::kInvalidUrl},
        {"unknown scheme", "ftp://127.0.0.1/x", platform::HttpError::kUnrecognizedScheme},
        {"refused", refused, platform::HttpError::kCannotConnect},
        {"reply cut short", svc.Url("/cut"), platform::HttpError::kConnectionAborted},
    };
    HttpRequest http;
    for (const Case& c : cases) {
        http.Open("GET", c.url);
        EXPECT_EQ(RaisedErrorNumber([&] { http.Send(); }), c.number) << c.what;
        EXPECT_EQ(http.ResponseText(), "") << c.what;
    }
}

TEST(HttpRequestTest, CredentialsAndUserAgentGivenOnceServeLaterRequests) {
    for (auto auth : {FakeWebDavService::Auth::Basic, FakeWebDavService::Auth::Digest}) {
        FakeWebDavService svc(auth, "joe", "s3cret");
        svc.Enqueue(DavReply("one"));
        svc.Enqueue(DavReply("two"));
        HttpRequest http;
        http.Open("PROPFIND", svc.Url("/1"));
        http.SetUserAgent("Agent/1");
        http.SetCredentials("joe", "s3cret", true);
        http.Send();
        http.Open("POST", svc.Url("/2"));
        http.Send("body");
        EXPECT_EQ(http.ResponseText(), "two");
        const auto reqs = svc.Requests();
        ASSERT_EQ(reqs.size(), 2u);
        EXPECT_EQ(reqs[1].Header("User-Agent"), "Agent/1");
        EXPECT_EQ(reqs[1].body, "body");
        EXPECT_TRUE(reqs[1].Header("Authorization"));
    }
}

}  // namespace
