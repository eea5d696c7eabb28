// What the service reads from a request before it touches the store: paths and Basic credentials. (Which
// address names what is shown by every request of the end-to-end tests.)
#include <gtest/gtest.h>

#include <tuple>

#include "webmail/dav/BasicCredentials.h"
#include "webmail/dav/UrlCodec.h"

namespace {

using namespace webmail::dav;

TEST(RequestParserTest, PathsThatCouldLeaveTheTreeAreRefused) {
    for (const char* bad : {"", "relative", "/a/../b", "/a/./b", "/a//b", "/a/%2e%2E/b", "/a/b%2Fc", "/a/b%2fc",
                            "/a/%5c", "/a/%00", "/a/%zz", "/a/%4"}) {
        EXPECT_FALSE(UrlCodec::SplitPath(bad)) << bad;
    }
    EXPECT_EQ(UrlCodec::SplitPath("/mail/ann/folders/Sent%20Items/"),
              (std::vector<std::string>{"mail", "ann", "folders", "Sent Items"}));
}

TEST(RequestParserTest, BasicCredentialsSchemeInAnyCaseStrictBase64AndNoControlCharacters) {
    const std::vector<std::tuple<const char*, const char*, const char*>> accepted = {
        {"Basic ZGVtbzpkZW1v", "demo", "demo"},
        {" BASIC   ZGVtbzpkZW1v ", "demo", "demo"},
        {"basic bmFtZTpwYTpzcw==", "name", "pa:ss"},  // only the first colon separates
    };
    for (const auto& [header, name, password] : accepted) {
        const auto c = BasicCredentials::Parse(header);
        ASSERT_TRUE(c) << header;
        EXPECT_EQ(c->name, name) << header;
        EXPECT_EQ(c->password, password) << header;
    }
    for (const char* header : {"Basic ZGVtbzpkZW1vAGp1bms=",  // "demo:demo\0junk"
                               "Basic ZGVtbzpkZQ1tbw==",      // "demo:de\rmo"
                               "Basic ZGV/bW86ZGVtbw==",      // "de\x7Fmo:demo"
                               "Basic ZGVtb2RlbW8=",          // no colon
                               "Basic ZGVtbzpkZW1v=", "Basic ZGVt*zpkZW1v", "BasicZGVtbzpkZW1v", ""}) {
        EXPECT_FALSE(BasicCredentials::Parse(header)) << header;
    }
}

}  // namespace
