// tarnwick-webmail's request-body parsing: PROPPATCH and BMOVE bodies (with their paths and Destination
// headers) and log-in PROPFIND headers through the service's router over a real store, and POST submission
// bodies through their parser. Whatever the request, the reply is a well-formed status and header, and nothing
// outside the requesting account changes: another account's mail, the password file and a file beside
// the store stay as they are.
//
// Input: the path and the Destination header in libFuzzer's length-delimited form (the text up to a backslash
// followed by another character; a doubled backslash stands for one), then the body (the log-in request's
// header for PROPFIND); the last byte picks the method.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "fuzz/FuzzCheck.h"
#include "tests/support/TempDir.h"
#include "webmail/dav/Router.h"
#include "webmail/store/MaildirStore.h"
#include "webmail/store/Submission.h"

namespace fs = std::filesystem;

namespace {

using fuzz::Check;
using namespace webmail;

constexpr const char* kAnnMessages[] = {"1600000000.M1P1Q1.fuzz", "1600000060.M2P1Q1.fuzz"};
constexpr const char* kBobMessage = "1600000120.M3P1Q1.fuzz";
constexpr const char* kMessageText = "From: a@b\r\nSubject: s\r\n\r\nbody\r\n";

void WriteFile(const fs::path& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

std::string ReadFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::size_t CountFiles(const fs::path& folder) {
    std::size_t n = 0;
    for (const char* sub : {"new", "cur"}) {
        std::error_code ec;
        for (auto it = fs::directory_iterator(folder / sub, ec); !ec && it != fs::directory_iterator(); ++it) ++n;
    }
    return n;
}

// Two accounts, ann with two unread messages and bob with one, and a file beside the store.
class Fixture {
public:
    Fixture() { Rebuild(); }

    // A fresh store whenever a request has moved, flagged or listed ann's mail.
    dav::Router& Router() {
        if (!fs::exists(Store() / "ann" / "new" / kAnnMessages[0]) ||
            !fs::exists(Store() / "ann" / "new" / kAnnMessages[1])) {
            Rebuild();
        }
        return *router_;
    }

    void CheckOthersUntouched() const {
        Check(ReadFile(Store() / "bob" / "new" / kBobMessage) == kMessageText, "another account's mail stays");
        Check(CountFiles(Store() / "bob") == 1 && CountFiles(Store() / "bob" / ".Deleted Items") == 0,
              "another account's folders stay as they are");
        Check(ReadFile(Store() / "passwd") == passwd_, "the password file stays");
        Check(ReadFile(top_.path() / "outside") == "outside", "a file beside the store stays");
    }

private:
    fs::path Store() const { return top_.path() / "store"; }

    void Rebuild() {
        router_.reset();
        store_.reset();
        fs::remove_all(Store());
        fs::create_directories(Store());
        WriteFile(top_.path() / "outside", "outside");
        store_ = std::make_unique<store::MaildirStore>(Store());
        store_->AddUser("ann", "pw");
        store_->AddUser("bob", "pw");
        for (const char* name : kAnnMessages) WriteFile(Store() / "ann" / "new" / name, kMessageText);
        WriteFile(Store() / "bob" / "new" / kBobMessage, kMessageText);
        passwd_ = ReadFile(Store() / "passwd");
        router_ = std::make_unique<dav::Router>(*store_, "tarnwick.local");
    }

    TempDir top_;
    std::string passwd_;
    std::unique_ptr<store::MaildirStore> store_;
    std::unique_ptr<dav::Router> router_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Fixture fixture;
    FuzzedDataProvider input(data, size);
    static constexpr const char* kMethods[] = {"PROPPATCH", "BMOVE", "PROPFIND"};
    dav::DavRequest request;
    request.method = kMethods[input.ConsumeIntegralInRange<int>(0, 2)];
    request.path = input.ConsumeRandomLengthString();
    request.destination = input.ConsumeRandomLengthString();
    request.user = "ann";
    request.baseUrl = "http://127.0.0.1:8110";
    request.contentType = "text/xml";
    const std::string rest = input.ConsumeRemainingBytesAsString();
    if (request.method == std::string("PROPFIND")) {
        request.propfindHeader = rest;
    } else {
        request.body = rest;
    }

    const dav::DavReply reply = fixture.Router().Handle(request);
    Check(reply.status >= 200 && reply.status <= 599, "a reply has an HTTP status");
    Check(!reply.davError.empty() && reply.davError.find_first_of("\r\n") == std::string::npos,
          "X-Dav-Error is one header line");
    fixture.CheckOthersUntouched();

    std::string error;
    const auto submission = store::Submission::Parse(rest, error);
    Check(submission ? !submission->recipients.empty() : !error.empty(), "a submission has a recipient or a reason");
    return 0;
}
