// How the request layer fails: each cause with its own number, a service that is down included. (Silence and
// oversized replies are shown end to end, against a scripted service.)
#include <gtest/gtest.h>

#include <string>

#include "core/Error.h"
#include "platform/http/HttpRequest.h"
#include "tests/support/FakeWebDavService.h"
#include "tests/support/LineClient.h"
#include "tests/support/RaisedError.h"

namespace {

using platform::HttpRequest;
using testing_support::FakeWebDavService;
using testing_support::RaisedErrorNumber;
namespace ErrorNumber = core::ErrorNumber;

TEST(HttpRequestTest, FailuresCarryTheRequestLayersNumbers) {
    FakeWebDavService svc;
    svc.Enqueue({.body = "partial", .davError = "", .breakOff = true});
    const std::string refused = "http://127.0.0.1:" + testing_support::FreePort() + "/";
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
