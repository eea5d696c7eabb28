// The Maildir store: listing order and ids across new/ -> cur/, flags and moves, delivery, links never
// followed, the password file, and delivery of a submission with its trace field.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <set>
#include <sstream>

#include "tests/unit/webmail/TempDir.h"
#include "webmail/store/MailDelivery.h"
#include "webmail/store/MaildirStore.h"

namespace fs = std::filesystem;
using namespace webmail::store;

namespace {

std::string ReadFile(const fs::path& path) {
    std::ostringstream out;
    out << std::ifstream(path, std::ios::binary).rdbuf();
    return out.str();
}

// Drops a message the way an outside Maildir tool would, with a chosen modification time.
void Drop(const fs::path& folder, const std::string& sub, const std::string& name, int minutesAgo) {
    const fs::path path = folder / sub / name;
    std::ofstream(path, std::ios::binary) << "Subject: " << name << "\n\nbody\n";
    fs::last_write_time(path, fs::file_time_type::clock::now() - std::chrono::minutes(minutesAgo));
}

// The first line of the file Open gave, or "none".
std::string OpenedSubject(const std::optional<MessageFile>& file) {
    if (!file) return "none";
    std::string text(200, '\0');
    text.resize(static_cast<std::size_t>(std::max(0L, file->ReadRaw(0, text.data(), text.size()))));
    return text.substr(0, text.find('\n'));
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

TEST_F(MaildirFolderTest, ListsOldestFirstAcrossNewAndCurAndMovesNewIntoCurKeepingIds) {
    Drop(box.Dir(), "cur", "300.A.host:2,S", 5);
    Drop(box.Dir(), "new", "100.B.host", 30);
    Drop(box.Dir(), "new", "200.C.host", 10);
    Drop(box.Dir(), "tmp", "400.D.host", 1);  // still being written: never listed
    const std::vector<std::string> expected = {"100.B.host", "200.C.host", "300.A.host"};
    EXPECT_EQ(Ids(box.List()), expected);
    EXPECT_TRUE(fs::is_empty(box.Dir() / "new"));
    EXPECT_TRUE(fs::exists(box.Dir() / "cur" / "100.B.host:2,"));
    EXPECT_EQ(Ids(box.List()), expected);
}

TEST_F(MaildirFolderTest, FlagsAndMovesRenameTheFileButKeepIdAndOtherFlags) {
    Drop(box.Dir(), "cur", "1.X.host:2,F", 3);
    Drop(box.Dir(), "new", "2.N.host", 2);
    Drop(box.Dir(), "cur", "3.R.host:2,RS", 1);
    Drop(box.Dir(), "cur", "4.U.host:2,", 1);
    Drop(box.Dir(), "cur", "5.S.host:2,S", 1);
    // Open finds each message by its id wherever its flags put it, and nothing by a file name.
    for (const auto& [id, subject] : std::vector<std::pair<std::string, std::string>>{
             {"1.X.host", "Subject: 1.X.host:2,F"},
             {"2.N.host", "Subject: 2.N.host"},
             {"3.R.host", "Subject: 3.R.host:2,RS"},
             {"4.U.host", "Subject: 4.U.host:2,"},
             {"5.S.host", "Subject: 5.S.host:2,S"},
             {"5.S.host:2,S", "none"},
             {"5.S", "none"},
             {"../box/cur/5.S.host:2,S", "none"}}) {
        EXPECT_EQ(OpenedSubject(box.Open(id)), subject) << id;
    }
    ASSERT_TRUE(box.SetSeen("1.X.host", true));
    EXPECT_TRUE(fs::exists(box.Dir() / "cur" / "1.X.host:2,FS"));
    ASSERT_TRUE(box.SetSeen("2.N.host", true));  // still in new/
    EXPECT_TRUE(fs::exists(box.Dir() / "cur" / "2.N.host:2,S"));
    ASSERT_TRUE(box.SetSeen("3.R.host", false));
    EXPECT_EQ(box.Find("3.R.host")->flags, "R");
    EXPECT_FALSE(box.SetSeen("no.such.id", true));
    EXPECT_FALSE(box.Find("1.X.host:2,FS"));  // a file name with its flags is not an id
    EXPECT_FALSE(box.Find("1.X"));

    EXPECT_TRUE(box.MoveTo("1.X.host", trash));
    EXPECT_FALSE(box.MoveTo("1.X.host", trash));  // already gone
    EXPECT_FALSE(box.MoveTo("../trash/cur/2.N.host:2,S", trash));
    const auto moved = trash.List();
    ASSERT_EQ(moved.size(), 1u);
    EXPECT_EQ(moved[0].id, "1.X.host");
    EXPECT_EQ(moved[0].flags, "FS");
}

TEST_F(MaildirFolderTest, LongFileNamesGetShortStableDistinctIds) {
    // Two names alike in their first 69 characters, as another Maildir tool might make them, and a name
    // already of the shape of a shortened id, which must not pose as one.
    const std::string common(69, 'n');
    const std::string first = common + ".first.example.org";
    const std::string posing = MaildirFolder::IdOf(first);
    Drop(box.Dir(), "new", first, 3);
    Drop(box.Dir(), "cur", common + ".second.example.org:2,S", 2);
    Drop(box.Dir(), "cur", posing + ":2,", 1);
    const auto listed = box.List();
    ASSERT_EQ(listed.size(), 3u);
    std::set<std::string> distinct;
    for (const auto& e : listed) {
        EXPECT_LE(e.id.size(), MaildirFolder::kMaxIdLength) << e.id;
        EXPECT_TRUE(MaildirFolder::IsUsableName(e.id)) << e.id;
        EXPECT_EQ(box.Find(e.id)->path, e.path) << e.id;
        const std::string subject = OpenedSubject(box.Open(e.id));
        EXPECT_NE(subject, "none") << e.id;
        EXPECT_EQ(subject, OpenedSubject(MessageFile::Open(e.path))) << e.id;
        distinct.insert(e.id);
    }
    EXPECT_EQ(distinct.size(), 3u);
    EXPECT_EQ(listed[0].id, posing);
    EXPECT_NE(listed[2].id, posing);
    ASSERT_TRUE(box.SetSeen(listed[0].id, true));
    ASSERT_TRUE(box.MoveTo(listed[0].id, trash));
    EXPECT_EQ(Ids(trash.List()), std::vector<std::string>{listed[0].id});
    for (const char* bad : {"", ".hidden", "a/b", "a b", "caf\xc3\xa9", "a\x01"}) {
        EXPECT_FALSE(MaildirFolder::IsUsableName(bad)) << bad;
    }
}

TEST_F(MaildirFolderTest, SymbolicLinksAreNeverFollowed) {
    TempDir outside;
    std::ofstream(outside.path() / "secret") << "Subject: not yours\n\n";
    MaildirFolder::Create(outside.path() / "other");
    Drop(box.Dir(), "cur", "1.real.host:2,", 2);
    fs::create_symlink(outside.path() / "secret", box.Dir() / "cur" / "2.link.host:2,");
    fs::create_symlink(outside.path() / "secret", box.Dir() / "new" / "3.link.host");
    EXPECT_EQ(Ids(box.List()), std::vector<std::string>{"1.real.host"});
    EXPECT_TRUE(fs::is_symlink(box.Dir() / "new" / "3.link.host"));  // left where it is
    EXPECT_FALSE(box.Find("2.link.host"));
    EXPECT_FALSE(box.Find("3.link.host"));
    EXPECT_FALSE(box.Open("2.link.host"));
    EXPECT_FALSE(box.Open("3.link.host"));
    EXPECT_FALSE(box.SetSeen("2.link.host", true));

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

    // The inbox's quick open finds a message only where no folder on its path is a link: an account that is a
    // link to a real Maildir, or whose cur/ is one, gets nothing from it (and Folder refuses them as well).
    Drop(outside.path() / "other", "cur", "7.out.host:2,", 1);
    Drop(dir.path() / "ann", "cur", "8.in.host:2,S", 1);
    fs::create_directory_symlink(dir.path() / "ann", dir.path() / "annlink");
    Account::Create(dir.path() / "bea");
    fs::remove_all(dir.path() / "bea" / "cur");
    fs::create_directory_symlink(outside.path() / "other" / "cur", dir.path() / "bea" / "cur");
    EXPECT_EQ(OpenedSubject(ann.OpenInboxMessage("8.in.host")), "Subject: 8.in.host:2,S");
    EXPECT_FALSE(Account("ann", dir.path() / "annlink").OpenInboxMessage("8.in.host"));
    EXPECT_FALSE(Account("ann", dir.path() / "annlink").Folder(Account::kInbox));
    EXPECT_FALSE(Account("bea", dir.path() / "bea").OpenInboxMessage("7.out.host"));
    EXPECT_FALSE(Account("bea", dir.path() / "bea").Folder(Account::kInbox));
    EXPECT_EQ(OpenedSubject(MaildirFolder(outside.path() / "other").Open("7.out.host")), "Subject: 7.out.host:2,");
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
    {
        MaildirStore store(dir.path());
        store.AddUser("ann", "pw");
        EXPECT_THROW(store.AddUser("../evil", "pw"), std::runtime_error);
    }
    const MaildirStore reloaded(dir.path());
    EXPECT_EQ(reloaded.Password("ann"), "pw");
    EXPECT_TRUE(reloaded.FindAccount("ann")->Folder("Deleted Items"));
    EXPECT_FALSE(reloaded.FindAccount("bob"));
    EXPECT_EQ(fs::status(dir.path() / PasswordFile::kFileName).permissions() & fs::perms::others_read, fs::perms::none);
}

class MailDeliveryTest : public ::testing::Test {
protected:
    void SetUp() override {
        store.AddUser("ann", "pw");
        store.AddUser("bob", "pw");
    }
    std::string Only(const std::string& account, const char* folder) {
        const auto entries = store.FindAccount(account)->Folder(folder)->List();
        EXPECT_EQ(entries.size(), 1u) << account << " " << folder;
        return entries.empty() ? std::string() : ReadFile(entries[0].path);
    }
    TempDir dir;
    MaildirStore store{dir.path()};
    MailDelivery delivery{store, "Example.ORG"};
};

TEST_F(MailDeliveryTest, LocalRecipientsGetInboxCopiesOthersAreQueuedAndEveryCopyNamesThePoster) {
    const Submission s{
        "ann@example.org", {"bob@EXAMPLE.org", "far@elsewhere.net", "nobody@example.org"}, "Subject: t\r\n\r\nhi\r\n"};
    const auto result = delivery.Deliver(*store.FindAccount("ann"), s, {"127.0.0.1", 1021371673});
    EXPECT_EQ(result.local, std::vector<std::string>{"bob"});
    EXPECT_EQ(result.queued, (std::vector<std::string>{"far@elsewhere.net", "nobody@example.org"}));
    const std::string trace =
        "Received: from [127.0.0.1] (authenticated account ann)\r\n\tby tarnwick-webmail (example.org) with HTTP\r\n";
    const std::string date = "; Tue, 14 May 2002 10:21:13 +0000\r\n";
    EXPECT_EQ(Only("bob", "INBOX"), trace + "\tfor <bob@EXAMPLE.org>" + date + s.message);
    EXPECT_EQ(Only("ann", "Sent Items"), trace + "\t" + date + s.message);
    EXPECT_TRUE(store.FindAccount("ann")->Folder("Sent Items")->List()[0].Seen());
    EXPECT_TRUE(fs::is_empty(dir.path() / "bob" / "tmp"));  // written there, then renamed
    EXPECT_EQ(Only("ann", "Outbox"), trace + "\t" + date +
                                         "X-Tarnwick-Envelope-From: <ann@example.org>\r\n"
                                         "X-Tarnwick-Envelope-To: <far@elsewhere.net>\r\n"
                                         "X-Tarnwick-Envelope-To: <nobody@example.org>\r\n" +
                                         s.message);
}

// Every file of every message folder of one account, tmp/ included.
std::vector<fs::path> FilesOf(const fs::path& account) {
    std::vector<fs::path> files;
    for (const auto& e : fs::recursive_directory_iterator(account)) {
        if (e.is_regular_file()) files.push_back(e.path());
    }
    return files;
}

TEST_F(MailDeliveryTest, ACopyThatCannotBeStoredLeavesNoCopyAnywhere) {
    // Copies are made for bob's INBOX, then ann's Outbox (the largest), then ann's Sent Items.
    const Submission s{"ann@example.org", {"bob@example.org", "far@elsewhere.net"}, "Subject: t\r\n\r\nhi\r\n"};
    const struct {
        const char* what;
        void (*breakStore)(const fs::path& root);
    } cases[] = {
        {"the Outbox copy outgrows the file size limit",
         [](const fs::path&) {
             // Room for the INBOX copy, not for the Outbox copy with its envelope lines.
             const rlimit limit{200, RLIM_INFINITY};
             ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
         }},
        {"the Sent Items folder cannot be made",
         [](const fs::path& root) {
             fs::remove_all(root / "ann" / ".Sent Items");
             std::ofstream(root / "ann" / ".Sent Items") << "in the way";
         }},
    };
    const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit saved{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
    for (const auto& c : cases) {
        c.breakStore(dir.path());
        const auto ann = FilesOf(dir.path() / "ann");
        const auto bob = FilesOf(dir.path() / "bob");
        EXPECT_ANY_THROW(delivery.Deliver(*store.FindAccount("ann"), s, {"127.0.0.1", 1021371673})) << c.what;
        ::setrlimit(RLIMIT_FSIZE, &saved);
        EXPECT_EQ(FilesOf(dir.path() / "bob"), bob) << c.what;
        EXPECT_EQ(FilesOf(dir.path() / "ann"), ann) << c.what;
    }
    std::signal(SIGXFSZ, oldHandler);
    // Once the store can take it, the same message is delivered whole, once.
    fs::remove(dir.path() / "ann" / ".Sent Items");
    delivery.Deliver(*store.FindAccount("ann"), s, {"127.0.0.1", 1021371673});
    EXPECT_NE(Only("bob", "INBOX").find("hi"), std::string::npos);
    EXPECT_NE(Only("ann", "Sent Items").find("hi"), std::string::npos);
}

}  // namespace
