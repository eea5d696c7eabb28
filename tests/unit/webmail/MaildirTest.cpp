// The Maildir store: listing order and ids across new/ -> cur/, flags and moves, links never followed, the
// password file, and delivery of a submission with its trace field, all copies or none.
#include <gtest/gtest.h>

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

// The whole text of the file Open gave, or "none".
std::string Opened(const std::optional<MessageFile>& file) {
    if (!file) return "none";
    std::string text(200, '\0');
    text.resize(static_cast<std::size_t>(std::max(0L, file->ReadRaw(0, text.data(), text.size()))));
    return text;
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
    EXPECT_EQ(Opened(box.Open("300.A.host")), "Subject: 300.A.host:2,F\n\nbody\n");
    for (const char* notAnId : {"300.A.host:2,F", "300.A", "../box/cur/300.A.host:2,F"}) {
        EXPECT_EQ(Opened(box.Open(notAnId)), "none") << notAnId;
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
    const auto moved = trash.List();
    ASSERT_EQ(moved.size(), 1u);
    EXPECT_EQ(moved[0].id, "300.A.host");
    EXPECT_EQ(moved[0].flags, "FS");
}

TEST_F(MaildirFolderTest, SymbolicLinksAreNeverFollowed) {
    TempDir outside;
    std::ofstream(outside.path() / "secret") << "Subject: not yours\n\n";
    MaildirFolder::Create(outside.path() / "other");
    Drop(box.Dir(), "cur", "1.real.host:2,", 2);
    fs::create_symlink(outside.path() / "secret", box.Dir() / "cur" / "2.link.host:2,");
    fs::create_symlink(outside.path() / "secret", box.Dir() / "new" / "3.link.host");
    EXPECT_EQ(Ids(box.List()), std::vector<std::string>{"1.real.host"});
    for (const char* link : {"2.link.host", "3.link.host"}) {
        EXPECT_FALSE(box.Open(link)) << link;
        EXPECT_FALSE(box.SetSeen(link, true)) << link;
    }

    // An account's folder that is a link, or whose cur/ is one, is no folder; nor is a name that is no Maildir.
    Account::Create(dir.path() / "ann");
    MaildirFolder::Create(dir.path() / "ann" / ".Archive");
    fs::create_directories(dir.path() / "ann" / ".NotAMaildir");
    fs::create_directory_symlink(outside.path() / "other", dir.path() / "ann" / ".Linked");
    MaildirFolder::Create(dir.path() / "ann" / ".LinkedCur");
    fs::remove_all(dir.path() / "ann" / ".LinkedCur" / "cur");
    fs::create_directory_symlink(outside.path() / "other" / "cur", dir.path() / "ann" / ".LinkedCur" / "cur");
    const Account ann("ann", dir.path() / "ann");
    EXPECT_EQ(ann.FolderNames(),
              (std::vector<std::string>{"INBOX", "Sent Items", "Deleted Items", "Outbox", "Archive"}));
    for (const char* bad : {"Linked", "LinkedCur", "NotAMaildir", "..", ".Archive", "../ann", "", "cur"}) {
        EXPECT_FALSE(ann.Folder(bad)) << bad;
    }
    EXPECT_THROW(MaildirFolder(dir.path() / "ann" / ".LinkedCur").Deliver("x", true), std::runtime_error);

    // The inbox's quick open finds nothing in an account that is a link, or whose cur/ is one.
    Drop(outside.path() / "other", "cur", "7.out.host:2,", 1);
    Drop(dir.path() / "ann", "cur", "8.in.host:2,S", 1);
    fs::create_directory_symlink(dir.path() / "ann", dir.path() / "annlink");
    Account::Create(dir.path() / "bea");
    fs::remove_all(dir.path() / "bea" / "cur");
    fs::create_directory_symlink(outside.path() / "other" / "cur", dir.path() / "bea" / "cur");
    EXPECT_TRUE(ann.OpenInboxMessage("8.in.host"));
    EXPECT_FALSE(Account("ann", dir.path() / "annlink").OpenInboxMessage("8.in.host"));
    EXPECT_FALSE(Account("bea", dir.path() / "bea").OpenInboxMessage("7.out.host"));
    EXPECT_FALSE(Account("bea", dir.path() / "bea").Folder(Account::kInbox));
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

}  // namespace
