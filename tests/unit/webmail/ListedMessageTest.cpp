// What the mailbox listing shows of a message: header fields read and cleaned, dates in their common shapes.
#include <gtest/gtest.h>

#include <fstream>

#include "tests/support/TempDir.h"
#include "webmail/dav/ListedMessage.h"
#include "webmail/text/MailDate.h"

namespace {

using webmail::dav::ListedMessage;
using webmail::store::MaildirEntry;
using webmail::store::MessageFile;

ListedMessage Listed(const TempDir& dir, const std::string& raw, const std::string& flags = "") {
    const auto path = dir.path() / "m";
    std::ofstream(path, std::ios::binary | std::ios::trunc) << raw;
    std::filesystem::last_write_time(path, std::filesystem::file_time_type::clock::from_sys(
                                               std::chrono::sys_seconds(std::chrono::seconds(1021371673))));
    return ListedMessage::Read(MaildirEntry{"1.a.host", path, flags}, *MessageFile::Open(path));
}

TEST(ListedMessageTest, ReadsUnfoldedHeaderFieldsInAnyCaseAndOnlyFromTheHeader) {
    TempDir dir;
    const auto m = Listed(dir,
                          "Received: by x\r\nFROM: \"Ann Smith\"\r\n <ann@x.org>\r\nto: bob@y.org\r\n"
                          "Subject: Hello\r\n\tworld\r\nDate: Tue, 14 May 2002 10:21:13 +0200\r\n"
                          "Content-Type: multipart/mixed; boundary=b\r\n\r\nSubject: not me\r\n",
                          "S");
    EXPECT_EQ(m.from, "\"Ann Smith\" <ann@x.org>");
    EXPECT_EQ(m.fromAddress, "ann@x.org");
    EXPECT_EQ(m.to, "bob@y.org");
    EXPECT_EQ(m.subject, "Hello world");
    EXPECT_EQ(m.date, "2002-05-14T08:21:13");
    EXPECT_TRUE(m.hasAttachment);
    EXPECT_TRUE(m.read);

    const auto bare = Listed(dir, "Subject: Caf\xE9\n\nContent-Disposition: attachment\n");
    EXPECT_EQ(bare.subject, "Caf\xC3\xA9");       // a Latin-1 byte, sent as UTF-8
    EXPECT_EQ(bare.date, "2002-05-14T10:21:13");  // the file's time
    EXPECT_EQ(bare.size, 50u);                    // every LF served as CR LF
    EXPECT_TRUE(bare.hasAttachment);              // a part declares itself one
    EXPECT_FALSE(bare.read);
}

TEST(ListedMessageTest, DatesInTheirCommonShapes) {
    const std::vector<std::pair<const char*, const char*>> cases = {
        {"Tue, 14 May 2002 10:21:13 +0200", "2002-05-14T08:21:13"},
        {"14 May 2002 10:21:13 -0130", "2002-05-14T11:51:13"},
        {"Fri, 1 Feb 02 23:30 GMT", "2002-02-01T23:30:00"},
        {"Wed, 31 Dec 2003 20:00:00 EST", "2004-01-01T01:00:00"},
    };
    for (const auto& [text, iso] : cases) EXPECT_EQ(webmail::text::IsoDate(text), iso) << text;
    for (const char* bad : {"", "yesterday", "Tue, 14 Foo 2002 10:21:13", "14 May 2002", "14 May 2002 25:00:00"}) {
        EXPECT_FALSE(webmail::text::IsoDate(bad)) << bad;
    }
}

}  // namespace
