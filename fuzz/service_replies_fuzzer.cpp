// The service client's reading of the log-in, folder and mailbox replies, with arbitrary bytes as each reply,
// against a scripted service in this process. Every address the replies name is fetched through that same
// scripted service (it is also the HTTP proxy of every request), so nothing leaves the machine.
//
// Input: the log-in reply, the folder reply and the mailbox reply, each in libFuzzer's length-delimited form
// (the text up to a backslash followed by another character; a doubled backslash stands for one), then the
// text every message fetch gets.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "tests/support/FakeWebDavService.h"
#include "core/Error.h"
#include "core/MErrorHandler.h"
#include "core/MessageBox.h"
#include "fuzz/FuzzCheck.h"
#include "mailservice/CHotmail.h"

namespace {

using fuzz::Check;

using testing_support::DavReply;
using testing_support::FakeWebDavService;

FakeWebDavService& Service() {
    static FakeWebDavService* service = [] {
        auto* s = new FakeWebDavService();
        const std::string proxy = s->Url("");
        for (const char* name : {"http_proxy", "https_proxy", "ALL_PROXY", "all_proxy"}) {
            setenv(name, proxy.c_str(), 1);
        }
        for (const char* name : {"no_proxy", "NO_PROXY"}) unsetenv(name);
        mailservice::CHotmail::SetServiceEntryURL(s->Url("/svcs/hotmail/tarnwick.asp"));
        core::MessageBox::SetHandler([](const std::string&) {});
        return s;
    }();
    return *service;
}

// Failures travel as errors; any other exception or a crash is a finding.
template <typename Step>
void Tolerate(Step&& step) {
    try {
        step();
    } catch (const core::Error&) {
    }
}

// Log-in then folder listing: the addresses come from the fuzzed log-in reply.
void LogIn(const std::string& loginReply, const std::string& folderReply) {
    Service().ClearScript();
    Service().Enqueue(DavReply(loginReply));
    Service().Enqueue(DavReply(folderReply));
    mailservice::CHotmail session;
    session.SetUserName("ann");
    session.SetPassword("pw");
    Tolerate([&] { Check(session.Connect(), "Connect returns true whenever it returns"); });
}

// Mailbox listing of a fixed address; every message fetch gets `messageText`.
void ListMailbox(const std::string& mailboxReply, const std::string& messageText) {
    Service().ClearScript();
    Service().Enqueue(DavReply(mailboxReply));
    for (int i = 0; i < 8; ++i) Service().Enqueue(DavReply(messageText, 404));
    mailservice::CHotmail session;
    Tolerate([&] { session.ParseMailboxInfo(Service().Url("/mail/ann/folders/INBOX/")); });
    const auto messages = session.GetMailCollection();
    std::int32_t position = 0;
    for (const mailservice::MessagePtr& m : *messages) {
        ++position;
        Check(m->mIndex == std::to_string(position), "records are numbered in reply order");
        Check(messages->Item(m->mIndex) == m, "each record is keyed by its number");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    const std::string loginReply = input.ConsumeRandomLengthString();
    const std::string folderReply = input.ConsumeRandomLengthString();
    const std::string mailboxReply = input.ConsumeRandomLengthString();
    const std::string messageText = input.ConsumeRemainingBytesAsString();
    core::MErrorHandler::ResetForTesting();
    LogIn(loginReply, folderReply);
    core::MErrorHandler::ResetForTesting();
    ListMailbox(mailboxReply, messageText);
    return 0;
}
