// The request layer against a recording fake service: what goes on the wire, what comes back, how it fails.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "FakeWebDavService.h"
#include "core/Error.h"
#include "platform/http/HttpRequest.h"
#include "tests/support/RaisedError.h"

namespace {

using platform::HttpRequest;
using testing_support::DavReply;
using testing_support::FakeWebDavService;
using testing_support::RaisedErrorNumber;
using testing_support::ScriptedReply;
namespace ErrorNumber = core::ErrorNumber;

// libcurl's own additions (Accept, Expect, a form Content-Type, a length for a body-less custom method) must not
// go out, and a header with an empty value must.
TEST(HttpRequestTest, OnlyTheGivenHeadersGoOutInOrderAndBodiesAreSentWhole) {
    FakeWebDavService svc;
    svc.Enqueue(DavReply("ok"));
    svc.Enqueue(DavReply("ok"));
    std::string big(2 * 1024 * 1024, 'x');
    big[0] = '\0';
    big[1] = '\xE9';
    HttpRequest http;
    http.Open("PROPFIND", svc.Url("/a"));
    http.SetRequestHeader("X-One", "1");
    http.Send();
    http.Open("BMOVE", svc.Url("/big"));
    http.SetRequestHeader("Destination", "");
    http.SetRequestHeader("Content-Type", "text/xml");
    http.Send(big);

    const auto reqs = svc.Requests();
    ASSERT_EQ(reqs.size(), 2u);
    EXPECT_EQ(reqs[0].method, "PROPFIND");
    EXPECT_EQ(reqs[0].body, "");
    EXPECT_FALSE(reqs[0].Header("Content-Length"));
    EXPECT_EQ(reqs[0].ExtraHeaderNames(), std::vector<std::string>{"X-One"});
    EXPECT_TRUE(reqs[1].body == big);
    EXPECT_EQ(reqs[1].ExtraHeaderNames(), (std::vector<std::string>{"Destination", "Content-Type"}));
    EXPECT_EQ(reqs[1].Header("Destination"), "");
}

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

}  // namespace
