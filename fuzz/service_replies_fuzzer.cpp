// The service client's reading of the log-in, folder and mailbox replies, with arbitrary bytes as each reply,
// against a scripted service in this process that is also the HTTP proxy of every request, so that every
// address the replies name is fetched from it and nothing leaves the machine. A failure is an error of ours;
// any other exception, a crash or a sanitizer finding is a finding. (How the replies are read is proved by the
// service client's tests.)
//
// Input: the log-in, folder and mailbox replies in libFuzzer's length-delimited form (the text up to a
// backslash followed by another character; a doubled backslash stands for one), then every message's text.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "core/Error.h"
#include "core/MErrorHandler.h"
#include "core/MessageBox.h"
#include "mailservice/CHotmail.h"
#include "tests/support/FakeWebDavService.h"

namespace {

using testing_support::FakeWebDavService;

FakeWebDavService& Service() {
    static FakeWebDavService* service = [] {
        auto* s = new FakeWebDavService();
        for (const char* name : {"http_proxy", "https_proxy", "ALL_PROXY", "all_proxy"}) {
            setenv(name, s->Url("").c_str(), 1);
        }
        for (const char* name : {"no_proxy", "NO_PROXY"}) unsetenv(name);
        mailservice::CHotmail::SetServiceEntryURL(s->Url(testing_support::kEntryPath));
        core::MessageBox::SetHandler([](const std::string&) {});
        return s;
    }();
    return *service;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    const std::string loginReply = input.ConsumeRandomLengthString();
    const std::string folderReply = input.ConsumeRandomLengthString();
    const std::string mailboxReply = input.ConsumeRandomLengthString();
    const std::string messageText = input.ConsumeRemainingBytesAsString();
    FakeWebDavService& service = Service();
    try {
        service.ClearScript();
        service.Enqueue({loginReply});
        service.Enqueue({folderReply});
        core::MErrorHandler::ResetForTesting();
        mailservice::CHotmail session;
        session.SetUserName("ann");
        session.SetPassword("pw");
        session.Connect();
    } catch (const core::Error&) {
    }
    try {
        service.ClearScript();
        service.Enqueue({mailboxReply});
        for (int i = 0; i < 8; ++i) service.Enqueue({messageText, 404});
        core::MErrorHandler::ResetForTesting();
        mailservice::CHotmail().ParseMailboxInfo(service.Url("/mail/ann/folders/INBOX/"));
    } catch (const core::Error&) {
    }
    return 0;
}
