// The Maildir store: listing order and ids across new/ -> cur/, flags and moves, only regular files and never
// through links; the password file; the posted submission and its envelope rules, and its delivery, all copies
// or none. Message files as the listing and GET read them: exact served size, CR LF conversion while streaming.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <fstream>
#include <set>
#include <sstream>

#include "tests/support/FileSizeLimit.h"
#include "tests/support/TempDir.h"
#include "webmail/store/MailDelivery.h"
#include "webmail/store/MaildirStore.h"

namespace fs = std::filesystem;
using namespace webmail::store;

namespace {

// Drops a message the way an outside Maildir tool would, with a chosen modification time.
void Drop(const fs::path& folder, const std::string& sub, const std::string& name, int minutesAgo) {
    const fs::path path = folder / sub / name;
    std::ofstream(path, std::ios::binary) << "Subject: " << name << "\n\nbody\n";
    fs::last_write_time(path, fs::file_time_type::clock::now() - std::chrono::minutes(minutesAgo));
}

std::vector<std::string> Ids(const std::vector<MaildirEntry>& entries) {
    std::vector<std::string> out;
    out.reserve(entries.size());
    for (const auto& e : entries) out.push_back(e.id);
    return out;
}

class MaildirFolderTest : public ::testing::Test {
protected:
    void SetUp() override {
        MaildirFolder::Create(dir.path() / "box");
        MaildirFolder::Create(dir.path() / "trash");
    }
    TempDir dir;
    MaildirFolder box{dir.path() / "box"};
    MaildirFolder trash{dir.path() / "trash"};
};

TEST_F(MaildirFolderTest, ListsOldestFirstMovesNewIntoCurAndKeepsIdsThroughFlagsAndMoves) {
    Drop(box.Dir(), "cur", "300.A.host:2,F", 5);
    Drop(box.Dir(), "new", "100.B.host", 30);
    Drop(box.Dir(), "new", "200.C.host", 10);
    Drop(box.Dir(), "tmp", "400.D.host", 1);  // still being written: never listed
    const std::vector<std::string> expected = {"100.B.host", "200.C.host", "300.A.host"};
    EXPECT_EQ(Ids(box.List()), expected);
    EXPECT_TRUE(fs::is_empty(box.Dir() / "new"));
    EXPECT_EQ(Ids(box.List()), expected);

    // An id finds its message wherever its flags put it; a file name or a path is no id.
    EXPECT_EQ(box.Find("300.A.host")->path, box.Dir() / "cur" / "300.A.host:2,F");
    EXPECT_TRUE(box.Open("300.A.host"));
    for (const char* notAnId : {"300.A.host:2,F", "300.A", "../box/cur/300.A.host:2,F"}) {
        EXPECT_FALSE(box.Open(notAnId)) << notAnId;
        EXPECT_FALSE(box.SetSeen(notAnId, true)) << notAnId;
        EXPECT_FALSE(box.MoveTo(notAnId, trash)) << notAnId;
    }
    ASSERT_TRUE(box.SetSeen("300.A.host", true));
    EXPECT_TRUE(fs::exists(box.Dir() / "cur" / "300.A.host:2,FS"));
    ASSERT_TRUE(box.SetSeen("100.B.host", true));
    ASSERT_TRUE(box.SetSeen("100.B.host", false));
    EXPECT_EQ(box.Find("100.B.host")->flags, "");
    EXPECT_TRUE(box.MoveTo("300.A.host", trash));
    EXPECT_FALSE(box.MoveTo("300.A.host", trash));  // already gone
    EXPECT_EQ(Ids(trash.List()), std::vector<std::string>{"300.A.host"});
    EXPECT_EQ(trash.Find("300.A.host")->flags, "FS");
}

TEST_F(MaildirFolderTest, OnlyRegularFilesAreMessagesAndLinksAreNeverFollowed) {
    TempDir outside;
    std::ofstream(outside.path() / "secret") << "Subject: not yours\n\n";
    MaildirFolder::Create(outside.path() / "other");
    Drop(box.Dir(), "cur", "1.real.host:2,", 2);
    fs::create_symlink(outside.path() / "secret", box.Dir() / "cur" / "2.link.host:2,");
    fs::create_symlink(outside.path() / "secret", box.Dir() / "new" / "3.link.host");
    ASSERT_EQ(::mkfifo((box.Dir() / "cur" / "4.fifo.host:2,").c_str(), 0600), 0);  // opening it must not wait
    fs::create_directory(box.Dir() / "cur" / "5.folder.host:2,");
    EXPECT_EQ(Ids(box.List()), std::vector<std::string>{"1.real.host"});
    for (const char* notAFile : {"2.link.host", "3.link.host", "4.fifo.host", "5.folder.host"}) {
        EXPECT_FALSE(box.Open(notAFile)) << notAFile;
        EXPECT_FALSE(box.SetSeen(notAFile, true)) << notAFile;
    }

    // An account's folder that is a link, or whose cur/ is one, is no folder; nor is a name that is no Maildir.
    Account::Create(dir.path() / "ann");
    MaildirFolder::Create(dir.path() / "ann" / ".Archive");
    fs::create_directories(dir.path() / "ann" / ".NotAMaildir");
    fs::create_directory_symlink(outside.path() / "other", dir.path() / "ann" / ".Linked");
    Account::Create(dir.path() / "bea");
    fs::remove_all(dir.path() / "bea" / "cur");
    fs::create_directory_symlink(outside.path() / "other" / "cur", dir.path() / "bea" / "cur");
    const Account ann("ann", dir.path() / "ann");
    const Account bea("bea", dir.path() / "bea");
    EXPECT_EQ(ann.FolderNames(),
              (std::vector<std::string>{"INBOX", "Sent Items", "Deleted Items", "Outbox", "Archive"}));
    for (const char* bad : {"Linked", "NotAMaildir", "..", ".Archive", "../ann", "", "cur"}) {
        EXPECT_FALSE(ann.Folder(bad)) << bad;
    }
    EXPECT_FALSE(bea.Folder(Account::kInbox));
    EXPECT_THROW(MaildirFolder(dir.path() / "bea").Deliver("x", true), std::runtime_error);

    // The inbox's quick open finds nothing in an account that is a link, or whose cur/ is one.
    Drop(outside.path() / "other", "cur", "7.out.host:2,", 1);
    Drop(dir.path() / "ann", "cur", "8.in.host:2,S", 1);
    fs::create_directory_symlink(dir.path() / "ann", dir.path() / "annlink");
    EXPECT_TRUE(ann.OpenInboxMessage("8.in.host"));
    EXPECT_FALSE(Account("ann", dir.path() / "annlink").OpenInboxMessage("8.in.host"));
    EXPECT_FALSE(bea.OpenInboxMessage("7.out.host"));
}

TEST(PasswordFileTest, ParsesPasswordsWithColonsRefusesBadLinesAndSurvivesAReload) {
    const auto file = PasswordFile::Parse("# comment\n\nann:s3cret\nbob:a:b:c\r\n");
    EXPECT_EQ(file.Password("ann"), "s3cret");
    EXPECT_EQ(file.Password("bob"), "a:b:c");
    EXPECT_FALSE(file.Password("carol"));
    for (const char* bad : {"nocolon\n", ":pw\n", "../x:pw\n", "ann:\n", ".dot:pw\n", "passwd:pw\n"}) {
        EXPECT_THROW(PasswordFile::Parse(bad), std::runtime_error) << bad;
    }
    TempDir dir;
    MaildirStore(dir.path()).AddUser("ann", "pw");
    EXPECT_EQ(MaildirStore(dir.path()).Password("ann"), "pw");
    EXPECT_EQ(fs::status(dir.path() / PasswordFile::kFileName).permissions() & fs::perms::others_read, fs::perms::none);
}

// Local recipients get an INBOX copy, the others are queued in the sender's Outbox, the sender keeps a read copy
// in Sent Items, and every copy starts with a trace field naming the poster. The copies are made for bob's INBOX,
// then ann's Outbox (the largest), then ann's Sent Items: when one cannot be stored, none is left anywhere, and
// once the store can take it the message is delivered whole, once.
TEST(MailDeliveryTest, CopiesForLocalAndQueuedRecipientsAndTheSenderAllOrNone) {
    TempDir dir;
    MaildirStore store(dir.path());
    store.AddUser("ann", "pw");
    store.AddUser("bob", "pw");
    const auto files = [&] {
        std::set<fs::path> out;
        for (const auto& e : fs::recursive_directory_iterator(dir.path())) {
            if (e.is_regular_file()) out.insert(e.path());
        }
        return out;
    };
    const auto only = [&](const std::string& account, const char* folder) {
        const auto entries = store.FindAccount(account)->Folder(folder)->List();
        EXPECT_EQ(entries.size(), 1u) << account << " " << folder;
        std::ostringstream text;
        if (!entries.empty()) text << std::ifstream(entries[0].path, std::ios::binary).rdbuf();
        return text.str();
    };
    const Submission s{
        "ann@example.org", {"bob@EXAMPLE.org", "far@elsewhere.net", "nobody@example.org"}, "Subject: t\r\n\r\nhi\r\n"};
    const MailDelivery delivery(store, "Example.ORG");
    const MailDelivery::Origin origin{"127.0.0.1", 1021371673};
    const auto before = files();
    {
        testing_support::FileSizeLimit limit(200);  // room for the INBOX copy, not for the Outbox copy's envelope
        ASSERT_TRUE(limit.Active());
        EXPECT_ANY_THROW(delivery.Deliver(*store.FindAccount("ann"), s, origin));
    }
    EXPECT_EQ(files(), before);

    const auto result = delivery.Deliver(*store.FindAccount("ann"), s, origin);
    EXPECT_EQ(result.local, std::vector<std::string>{"bob"});
    EXPECT_EQ(result.queued, (std::vector<std::string>{"far@elsewhere.net", "nobody@example.org"}));
    const std::string trace =
        "Received: from [127.0.0.1] (authenticated account ann)\r\n\tby tarnwick-webmail (example.org) with HTTP\r\n";
    const std::string date = "; Tue, 14 May 2002 10:21:13 +0000\r\n";
    EXPECT_EQ(only("bob", "INBOX"), trace + "\tfor <bob@EXAMPLE.org>" + date + s.message);
    EXPECT_EQ(only("ann", "Sent Items"), trace + "\t" + date + s.message);
    EXPECT_TRUE(store.FindAccount("ann")->Folder("Sent Items")->List()[0].Seen());
    EXPECT_EQ(only("ann", "Outbox"), trace + "\t" + date +
                                         "X-Tarnwick-Envelope-From: <ann@example.org>\r\n"
                                         "X-Tarnwick-Envelope-To: <far@elsewhere.net>\r\n"
                                         "X-Tarnwick-Envelope-To: <nobody@example.org>\r\n" +
                                         s.message);
}

// The envelope: extra words, missing brackets, a tab and the verb in any case; a null sender; recipients once
// each, the local part compared exactly and the domain in any case. What follows it is the message: unstuffed,
// up to the dot line, the line break before it kept.
TEST(SubmissionTest, ParsesTheEnvelopeAndTheMessageUpToTheDotLine) {
    const struct {
        std::string body;
        std::string sender;
        std::vector<std::string> recipients;
        std::string message;
    } cases[] = {
        {"MAIL FROM: <a@x.org>\tSIZE=20\r\nRCPT TO:b@y.org NOTIFY=NEVER\r\nrcpt to:<c@z.org>\r\n\r\n"
         "Subject: s\r\n\r\nbody\r\n\r\n.\r\n",  // the empty line before the dot line stays
         "a@x.org", {"b@y.org", "c@z.org"}, "Subject: s\r\n\r\nbody\r\n\r\n"},
        {"MAIL FROM:<>\r\nRCPT TO:<b@Y.org>\r\nRCPT TO:<b@y.ORG>\r\nRCPT TO:<B@y.org>\r\n\r\n"
         "..hidden\r\n...\r\nx.\r\n.\r\n",
         "", {"b@Y.org", "B@y.org"}, ".hidden\r\n..\r\nx.\r\n"},
        {"MAIL FROM:<a@x.org>\r\nRCPT TO:<b@y.org>\r\n\r\n.\r\n", "a@x.org", {"b@y.org"}, ""},
        {"MAIL FROM:<a@x.org>\nRCPT TO:<b@y.org>\n\nm\n.\n", "a@x.org", {"b@y.org"}, "m\n"},  // bare LF line ends
    };
    for (const auto& c : cases) {
        std::string error;
        const auto parsed = Submission::Parse(c.body, error);
        ASSERT_TRUE(parsed) << c.body << ": " << error;
        EXPECT_EQ(parsed->sender, c.sender) << c.body;
        EXPECT_EQ(parsed->recipients, c.recipients) << c.body;
        EXPECT_EQ(parsed->message, c.message) << c.body;
    }
}

// Recipients "r0@y.org" ... in one body.
std::string WithRecipients(std::size_t count) {
    std::string body = "MAIL FROM:<a@x.org>\r\n";
    for (std::size_t i = 0; i < count; ++i) body += "RCPT TO:<r" + std::to_string(i) + "@y.org>\r\n";
    return body + "\r\nm\r\n\r\n.\r\n";
}

TEST(SubmissionTest, RefusesMalformedBodiesControlCharactersLongAddressesAndTooManyRecipients) {
    const std::string ok = "RCPT TO:<b@y.org>\r\n\r\nm\r\n\r\n.\r\n";
    const std::vector<std::pair<std::string, std::string>> refused = {
        {"MAIL FROM:<a@x>\r\n\r\nm\r\n.\r\n", "no RCPT TO: line"},
        {"MAIL FROM:<a@x>\r\nRCPT TO:<b@y>\r\n\r\nno end line\r\n", "message does not end with a \".\" line"},
        {"MAIL FROM:<a@x>\r\nDATA\r\n\r\nm\r\n.\r\n", "envelope line is not RCPT TO:"},
        {"MAIL FROM:<a@x.org\rBcc: c@z.org>\r\n" + ok, "control character in the MAIL FROM line"},
        {"MAIL FROM:<a@x.org>\r\nRCPT TO:<b@y.org>\rBcc: c@z.org\r\n\r\nm\r\n.\r\n",
         "control character in the RCPT TO line"},
        {"MAIL FROM:<a\t@x.org>\r\n" + ok, "control character in the MAIL FROM address"},
        {"MAIL FROM:<a@x.org>\r\nRCPT TO:<" + std::string(250, 'b') + "@y.org>\r\n\r\nm\r\n.\r\n",
         "RCPT TO address longer than 254 characters"},
        {WithRecipients(101), "more than 100 recipients"},
    };
    for (const auto& [body, reason] : refused) {
        std::string error;
        EXPECT_FALSE(Submission::Parse(body, error)) << body.substr(0, 60);
        EXPECT_EQ(error, reason) << body.substr(0, 60);
    }
    std::string error;
    EXPECT_EQ(Submission::Parse(WithRecipients(100), error)->recipients.size(), 100u);
}

// Everything ReadServed gives, asked for at most `capacity` bytes at a time.
std::string Served(const MessageFile& file, std::size_t capacity) {
    std::string out, piece(capacity, '\0');
    std::uint64_t offset = 0;
    bool lastCr = false;
    while (const long n = file.ReadServed(offset, lastCr, piece.data(), capacity)) {
        if (n < 0) ADD_FAILURE() << "read error";
        if (n <= 0) break;
        out.append(piece, 0, static_cast<std::size_t>(n));
    }
    return out;
}

TEST(MessageFileTest, ServesEveryBareLfAsCrLfWithTheListedSizeWhateverThePieceSize) {
    TempDir dir;
    // CR LF pairs and bare LFs that straddle the 64 KB scan blocks and the small read pieces.
    std::string big(200000, 'x');
    big[65535] = '\r', big[65536] = '\n', big[131072] = '\n', big[131071] = 'y', big[199999] = '\n';
    std::string bigServed = big;
    bigServed.insert(199999, "\r");
    bigServed.insert(131072, "\r");
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"a\nb\r\nc\n\n", "a\r\nb\r\nc\r\n\r\n"},
        {"x\r\r\ny\r", "x\r\r\ny\r"},
        {big, bigServed},
    };
    int n = 0;
    for (const auto& [raw, expected] : cases) {
        const fs::path path = dir.path() / std::to_string(++n);
        std::ofstream(path, std::ios::binary) << raw;
        const auto file = MessageFile::Open(path);
        ASSERT_TRUE(file);
        const MessageFile::Facts facts = file->ReadFacts();
        EXPECT_EQ(facts.servedSize, expected.size()) << n;
        EXPECT_EQ(facts.bareLf, raw != expected) << n;
        for (std::size_t capacity : {2u, 3u, 7u, 65536u}) EXPECT_EQ(Served(*file, capacity), expected) << n;
    }
}

}  // namespace
