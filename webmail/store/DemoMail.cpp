#include "webmail/store/DemoMail.h"

#include <chrono>
#include <filesystem>

namespace webmail::store {

namespace {

std::string Crlf(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '\n') out += '\r';
        out += c;
    }
    return out;
}

}  // namespace

std::vector<DemoMail::Sample> DemoMail::Samples(const std::string& domain) {
    const std::string to = "Demo User <demo@" + domain + ">";
    std::vector<Sample> list;
    list.push_back({Crlf("From: Tarnwick Team <team@" + domain + ">\nTo: " + to +
                         "\nSubject: Welcome to tarnwick-webmail\nDate: Mon, 13 May 2002 09:00:00 +0000\n"
                         "Message-ID: <welcome@" +
                         domain +
                         ">\nContent-Type: text/plain; charset=us-ascii\n\n"
                         "Hello,\n\nthis mailbox lives in a Maildir on your own machine.\n"
                         "Fetch it with any POP3 reader through Tarnwick Gateway.\n"),
                    false});
    list.push_back({Crlf("From: =?UTF-8?Q?J=C3=BCrgen?= <juergen@example.org>\nTo: " + to +
                         "\nSubject: Gr\xC3\xBC\xC3\x9F"
                         "e aus K\xC3\xB6ln \xE2\x80\x93 UTF-8\n"
                         "Date: Tue, 14 May 2002 10:21:13 +0200\nMIME-Version: 1.0\n"
                         "Content-Type: text/plain; charset=utf-8\nContent-Transfer-Encoding: 8bit\n\n"
                         "Sch\xC3\xB6ne Gr\xC3\xBC\xC3\x9F"
                         "e, \xE2\x82\xAC 5 und \xE3\x81\x93\xE3\x82\x93\xE3\x81\xAB"
                         "\xE3\x81\xA1\xE3\x81\xAF.\n"),
                    false});
    list.push_back({Crlf("From: Fran\xE7ois <francois@example.org>\nTo: " + to +
                         "\nSubject: Caf\xE9 cr\xE8me (Latin-1)\nDate: Wed, 15 May 2002 08:05:00 +0200\n"
                         "MIME-Version: 1.0\nContent-Type: text/plain; charset=iso-8859-1\n"
                         "Content-Transfer-Encoding: 8bit\n\nD\xE9j\xE0 vu, na\xEFve, \xA3 10.\n"),
                    false});
    list.push_back({Crlf("From: Reports <reports@example.org>\nTo: " + to +
                         "\nSubject: Report with an attachment\nDate: Thu, 16 May 2002 16:45:30 +0000\n"
                         "MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=\"=-tarnwick-demo\"\n\n"
                         "This is a multi-part message in MIME format.\n\n--=-tarnwick-demo\n"
                         "Content-Type: text/plain; charset=us-ascii\n\nThe report is attached.\n\n"
                         "--=-tarnwick-demo\nContent-Type: text/plain; name=\"report.txt\"\n"
                         "Content-Disposition: attachment; filename=\"report.txt\"\n"
                         "Content-Transfer-Encoding: base64\n\n"
                         "SGVsbG8gZnJvbSB0aGUgVGFybndpY2sgZGVtbyBhdHRhY2htZW50Lg0KU2Vjb25kIGxpbmUuDQo=\n\n"
                         "--=-tarnwick-demo--\n"),
                    false});
    list.push_back({Crlf("From: Dot Tester <dots@example.org>\nTo: " + to +
                         "\nSubject: Lines that begin with a dot\nDate: Fri, 17 May 2002 12:00:00 +0000\n\n"
                         "The next lines begin with a dot; a POP3 server must stuff them.\n"
                         ".hidden file name\n..two dots\n.\nThe line above holds a single dot.\n"),
                    false});
    list.push_back({Crlf("From: Tarnwick Team <team@" + domain + ">\nTo: " + to +
                         "\nSubject: Already read\nDate: Sun, 12 May 2002 18:30:00 +0000\n\n"
                         "This message is marked read, so POP3 readers of the gateway do not see it.\n"),
                    true});
    return list;
}

bool DemoMail::Ensure(MaildirStore& store, const std::string& domain) {
    if (store.FindAccount(kName)) return false;
    const Account account = store.AddUser(kName, kPassword);
    const MaildirFolder inbox = *account.Folder(Account::kInbox);
    const auto now = std::filesystem::file_time_type::clock::now();
    const auto list = Samples(domain);
    for (std::size_t i = 0; i < list.size(); ++i) {
        const std::string id = inbox.Deliver(list[i].text, !list[i].read, list[i].read ? "S" : "");
        // Distinct times keep the listing in the order above, oldest first.
        const auto when = now - std::chrono::minutes(static_cast<int>(list.size() - i));
        if (auto entry = inbox.Find(id)) std::filesystem::last_write_time(entry->path, when);
    }
    return true;
}

}  // namespace webmail::store
