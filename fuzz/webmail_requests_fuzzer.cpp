// tarnwick-webmail's request handling: PROPPATCH and BMOVE bodies (with their paths and Destination headers)
// and log-in PROPFIND headers through the service's router over a real store, as account "ann", and POST
// submission bodies through their parser. Whatever the request, the reply has an HTTP status and an
// "X-Dav-Error" of one line, and nothing outside ann's folder changes: another account's mail, the password
// file and a file beside the store stay as they are.
//
// Input: the path and the Destination header in libFuzzer's length-delimited form (the text up to a backslash
// followed by another character; a doubled backslash stands for one), then the body (the log-in request's
// header for PROPFIND); the last byte picks the method.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "fuzz/FuzzCheck.h"
#include "tests/support/TempDir.h"
#include "webmail/dav/Router.h"
#include "webmail/store/MaildirStore.h"
#include "webmail/store/Submission.h"

namespace fs = std::filesystem;
using namespace webmail;

namespace {

constexpr const char* kAnnMessage = "1600000000.M1P1Q1.fuzz";
constexpr const char* kMessageText = "From: a@b\r\nSubject: s\r\n\r\nbody\r\n";

// Every file under `top` but those in `skipped`, by path, with its text.
std::string Snapshot(const fs::path& top, const fs::path& skipped) {
    std::ostringstream out;
    for (auto it = fs::recursive_directory_iterator(top); it != fs::recursive_directory_iterator(); ++it) {
        if (it->path() == skipped) {
            it.disable_recursion_pending();
        } else if (it->is_regular_file()) {
            out << it->path() << '\n' << std::ifstream(it->path(), std::ios::binary).rdbuf() << '\n';
        }
    }
    return out.str();
}

// Two accounts, ann with one unread message and bob with one, and a file beside the store; a fresh store once
// a request has moved, flagged or listed ann's message.
struct Fixture {
    dav::Router& Router() {
        if (!router || !fs::exists(Ann() / "new" / kAnnMessage)) {
            router.reset();
            fs::remove_all(Store());
            fs::create_directories(Store());
            store = std::make_unique<store::MaildirStore>(Store());
            store->AddUser("ann", "pw");
            store->AddUser("bob", "pw");
            std::ofstream(Ann() / "new" / kAnnMessage, std::ios::binary) << kMessageText;
            std::ofstream(Store() / "bob" / "new" / "1600000120.M3P1Q1.fuzz", std::ios::binary) << kMessageText;
            std::ofstream(top.path() / "outside") << "outside";
            others = Snapshot(top.path(), Ann());
            router = std::make_unique<dav::Router>(*store, "tarnwick.local");
        }
        return *router;
    }
    fs::path Store() const { return top.path() / "store"; }
    fs::path Ann() const { return Store() / "ann"; }

    TempDir top;
    std::unique_ptr<store::MaildirStore> store;
    std::unique_ptr<dav::Router> router;
    std::string others;
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
    (request.method == std::string("PROPFIND") ? request.propfindHeader : request.body) = rest;

    const dav::DavReply reply = fixture.Router().Handle(request);
    fuzz::Check(reply.status >= 200 && reply.status <= 599, "a reply has an HTTP status");
    fuzz::Check(!reply.davError.empty() && reply.davError.find_first_of("\r\n") == std::string::npos,
                "X-Dav-Error is one header line");
    fuzz::Check(Snapshot(fixture.top.path(), fixture.Ann()) == fixture.others, "nothing outside ann's folder changes");
    std::string error;
    (void)store::Submission::Parse(rest, error);
    return 0;
}
