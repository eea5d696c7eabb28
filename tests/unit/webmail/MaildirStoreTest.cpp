// The Maildir store: listing order, ids across new/ -> cur/ and flag changes, moves, delivery, accounts.
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <set>
#include <sstream>

#include "tests/unit/webmail/TempDir.h"
#include "webmail/store/Account.h"
#include "webmail/store/MailDelivery.h"
#include "webmail/store/MaildirFolder.h"
#include "webmail/store/MaildirStore.h"
#include "webmail/store/PasswordFile.h"

namespace fs = std::filesystem;

namespace {

void writeFile(const fs::path& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

// Drops a message the way an outside Maildir tool would, with a chosen modification time.
void drop(const fs::path& folder, const std::string& sub, const std::string& name, int minutesAgo) {
    const fs::path path = folder / sub / name;
    writeFile(path, "Subject: " + name + "\n\nbody\n");
    fs::last_write_time(path, fs::file_time_type::clock::now() - std::chrono::minutes(minutesAgo));
}

std::vector<std::string> ids(const std::vector<MaildirEntry>& entries) {
    std::vector<std::string> out;
    for (const auto& e : entries) out.push_back(e.id);
    return out;
}

class MaildirFolderTest : public ::testing::Test {
protected:
    void SetUp() override { MaildirFolder::create(dir.path() / "box"); }
    TempDir dir;
    MaildirFolder box{dir.path() / "box"};
};

TEST_F(MaildirFolderTest, ListsOldestFirstAcrossNewAndCurAndMovesNewIntoCurKeepingIds) {
    drop(box.dir(), "cur", "300.A.host:2,S", 5);
    drop(box.dir(), "new", "100.B.host", 30);
    drop(box.dir(), "new", "200.C.host", 10);
    drop(box.dir(), "tmp", "400.D.host", 1);  // still being written: never listed
    EXPECT_EQ(ids(box.list()), (std::vector<std::string>{"100.B.host", "200.C.host", "300.A.host"}));
    EXPECT_TRUE(fs::is_empty(box.dir() / "new"));
    EXPECT_TRUE(fs::exists(box.dir() / "cur" / "100.B.host:2,"));
    // A second listing sees the same ids in the same order.
    EXPECT_EQ(ids(box.list()), (std::vector<std::string>{"100.B.host", "200.C.host", "300.A.host"}));
}

TEST_F(MaildirFolderTest, SeenFlagChangesFileNameButNotIdAndKeepsOtherFlags) {
    drop(box.dir(), "cur", "1.X.host:2,F", 1);
    ASSERT_TRUE(box.setSeen("1.X.host", true));
    EXPECT_TRUE(fs::exists(box.dir() / "cur" / "1.X.host:2,FS"));
    auto listed = box.list();
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(listed[0].id, "1.X.host");
    EXPECT_TRUE(listed[0].seen());
    ASSERT_TRUE(box.setSeen("1.X.host", false));
    EXPECT_TRUE(fs::exists(box.dir() / "cur" / "1.X.host:2,F"));
    EXPECT_FALSE(box.find("1.X.host")->seen());
    EXPECT_FALSE(box.setSeen("no.such.id", true));
}

TEST_F(MaildirFolderTest, SeenFlagWorksOnAMessageStillInNew) {
    drop(box.dir(), "new", "5.N.host", 1);
    ASSERT_TRUE(box.setSeen("5.N.host", true));
    EXPECT_TRUE(fs::exists(box.dir() / "cur" / "5.N.host:2,S"));
    EXPECT_TRUE(fs::is_empty(box.dir() / "new"));
}

TEST_F(MaildirFolderTest, FindsAMessageByIdWhereverItsFileIsAndWhateverItsFlags) {
    struct Case {
        const char* sub;
        const char* file;
        const char* id;
        const char* flags;
    };
    const Case cases[] = {
        {"cur", "1.A.host:2,", "1.A.host", ""},     {"cur", "2.B.host:2,S", "2.B.host", "S"},
        {"cur", "3.C.host:2,FS", "3.C.host", "FS"}, {"cur", "4.D.host:2,RS", "4.D.host", "RS"},
        {"new", "5.E.host", "5.E.host", ""},
    };
    for (const Case& c : cases) drop(box.dir(), c.sub, c.file, 1);
    for (const Case& c : cases) {
        const auto found = box.find(c.id);
        ASSERT_TRUE(found) << c.file;
        EXPECT_EQ(found->id, c.id);
        EXPECT_EQ(found->flags, c.flags) << c.file;
        EXPECT_EQ(found->path, box.dir() / c.sub / c.file);
    }
    // A file name with its flags is not an id, and an id of another message's prefix finds nothing.
    EXPECT_FALSE(box.find("2.B.host:2,S"));
    EXPECT_FALSE(box.find("1.A"));
}

TEST_F(MaildirFolderTest, MoveKeepsIdAndFlagsAndReportsUnknownIds) {
    MaildirFolder::create(dir.path() / "trash");
    const MaildirFolder trash(dir.path() / "trash");
    drop(box.dir(), "cur", "7.M.host:2,S", 1);
    EXPECT_TRUE(box.moveTo("7.M.host", trash));
    EXPECT_TRUE(box.list().empty());
    auto moved = trash.list();
    ASSERT_EQ(moved.size(), 1u);
    EXPECT_EQ(moved[0].id, "7.M.host");
    EXPECT_TRUE(moved[0].seen());
    EXPECT_FALSE(box.moveTo("7.M.host", trash));  // already gone
    EXPECT_FALSE(box.moveTo("../trash/cur/7.M.host:2,S", trash));
}

TEST_F(MaildirFolderTest, DeliveryLeavesNothingInTmpAndStoresBytesExactly) {
    const std::string bytes = std::string("Subject: x\r\n\r\n\x00\xff tail\r\n", 20);
    const std::string unseen = box.deliver(bytes, true);
    const std::string seen = box.deliver(bytes, false, "S");
    EXPECT_NE(unseen, seen);
    EXPECT_TRUE(fs::is_empty(box.dir() / "tmp"));
    EXPECT_EQ(readFile(box.dir() / "new" / unseen), bytes);
    EXPECT_EQ(readFile(box.dir() / "cur" / (seen + ":2,S")), bytes);
    EXPECT_TRUE(MaildirFolder::isUsableName(unseen));
}

TEST_F(MaildirFolderTest, LongFileNamesGetShortStableDistinctIds) {
    // Two names alike in their first 69 characters, as another Maildir tool might make them.
    const std::string common = std::string(69, 'n');
    const std::string first = common + ".first.example.org", second = common + ".second.example.org";
    // A name already of the shape of a shortened id must not pose as one.
    const std::string posing = MaildirFolder::idOf(first);
    drop(box.dir(), "new", first, 3);
    drop(box.dir(), "cur", second + ":2,S", 2);
    drop(box.dir(), "cur", posing + ":2,", 1);
    const auto listed = box.list();
    ASSERT_EQ(listed.size(), 3u);
    std::set<std::string> distinct;
    for (const auto& e : listed) {
        EXPECT_LE(e.id.size(), MaildirFolder::kMaxIdLength) << e.id;
        EXPECT_TRUE(MaildirFolder::isUsableName(e.id)) << e.id;
        distinct.insert(e.id);
        const auto found = box.find(e.id);
        ASSERT_TRUE(found) << e.id;
        EXPECT_EQ(found->path, e.path);
    }
    EXPECT_EQ(distinct.size(), 3u);
    EXPECT_EQ(listed[0].id, posing);  // the first file's id, now and in every listing
    EXPECT_EQ(ids(box.list()), ids(listed));
    EXPECT_NE(listed[2].id, posing);
    // Flags and moves keep the id.
    MaildirFolder::create(dir.path() / "trash");
    const MaildirFolder trash(dir.path() / "trash");
    ASSERT_TRUE(box.setSeen(listed[0].id, true));
    ASSERT_TRUE(box.moveTo(listed[0].id, trash));
    EXPECT_EQ(ids(trash.list()), std::vector<std::string>{listed[0].id});
    // Short names stay their own ids, and the service's own names are short.
    EXPECT_EQ(MaildirFolder::idOf("1700000000.M1P2Q3.host"), "1700000000.M1P2Q3.host");
    EXPECT_LE(MaildirFolder::uniqueName().size(), MaildirFolder::kMaxIdLength);
}

TEST_F(MaildirFolderTest, SymbolicLinksAreNeverFollowed) {
    TempDir outside;
    writeFile(outside.path() / "secret", "Subject: not yours\n\n");
    MaildirFolder::create(outside.path() / "other");
    drop(box.dir(), "cur", "1.real.host:2,", 2);
    fs::create_symlink(outside.path() / "secret", box.dir() / "cur" / "2.link.host:2,");
    fs::create_symlink(outside.path() / "secret", box.dir() / "new" / "3.link.host");
    EXPECT_EQ(ids(box.list()), std::vector<std::string>{"1.real.host"});
    EXPECT_TRUE(fs::is_symlink(box.dir() / "new" / "3.link.host"));  // left where it is
    EXPECT_FALSE(box.find("2.link.host"));
    EXPECT_FALSE(box.find("3.link.host"));
    EXPECT_FALSE(box.setSeen("2.link.host", true));
    // A folder whose cur/ is a link is no Maildir; nor is a link to a Maildir.
    fs::remove_all(box.dir() / "cur");
    fs::create_directory_symlink(outside.path() / "other" / "cur", box.dir() / "cur");
    EXPECT_FALSE(MaildirFolder::isMaildir(box.dir()));
    EXPECT_TRUE(box.list().empty());
    EXPECT_THROW(box.deliver("x", true), std::runtime_error);
    fs::create_directory_symlink(outside.path() / "other", dir.path() / "linked");
    EXPECT_FALSE(MaildirFolder::isMaildir(dir.path() / "linked"));
}

TEST(MaildirFolderNames, UsableNamesExcludeWhatIsUnsafeInUrlsOrXml) {
    EXPECT_TRUE(MaildirFolder::isUsableName("1700000000.M1P2Q3.host"));
    for (const char* bad : {"", ".hidden", "a/b", "a b", "caf\xc3\xa9", "a\x01"}) {
        EXPECT_FALSE(MaildirFolder::isUsableName(bad)) << bad;
    }
}

TEST(AccountTest, FoldersAreFoundOnlyAmongExistingMaildirs) {
    TempDir dir;
    Account::create(dir.path() / "ann");
    MaildirFolder::create(dir.path() / "ann" / ".Archive");
    fs::create_directories(dir.path() / "ann" / ".NotAMaildir");
    const Account ann("ann", dir.path() / "ann");
    EXPECT_EQ(ann.folderNames(),
              (std::vector<std::string>{"INBOX", "Sent Items", "Deleted Items", "Outbox", "Archive"}));
    EXPECT_TRUE(ann.folder("Archive"));
    for (const char* bad : {"NotAMaildir", "..", ".Archive", "../ann", "", "cur"}) {
        EXPECT_FALSE(ann.folder(bad)) << bad;
    }
}

TEST(PasswordFileTest, ParsesNamesAndPasswordsWithColonsAndRejectsBadLines) {
    const auto file = PasswordFile::parse("# comment\n\nann:s3cret\nbob:a:b:c\r\n");
    EXPECT_EQ(file.password("ann"), "s3cret");
    EXPECT_EQ(file.password("bob"), "a:b:c");
    EXPECT_FALSE(file.password("carol"));
    for (const char* bad : {"nocolon\n", ":pw\n", "../x:pw\n", "ann:\n", ".dot:pw\n", "passwd:pw\n"}) {
        EXPECT_THROW(PasswordFile::parse(bad), std::runtime_error) << bad;
    }
    EXPECT_EQ(PasswordFile::parse(file.serialize()).entries(), file.entries());
}

TEST(MaildirStoreTest, AddedUserHasTreeAndPasswordThatSurviveReload) {
    TempDir dir;
    {
        MaildirStore store(dir.path());
        store.addUser("ann", "pw");
        EXPECT_THROW(store.addUser("../evil", "pw"), std::runtime_error);
    }
    const MaildirStore reloaded(dir.path());
    EXPECT_EQ(reloaded.password("ann"), "pw");
    ASSERT_TRUE(reloaded.account("ann"));
    EXPECT_TRUE(reloaded.account("ann")->folder("Deleted Items"));
    EXPECT_FALSE(reloaded.account("bob"));
    EXPECT_EQ(fs::status(dir.path() / PasswordFile::kFileName).permissions() & fs::perms::others_read, fs::perms::none);
}

class MailDeliveryTest : public ::testing::Test {
protected:
    void SetUp() override {
        store.addUser("ann", "pw");
        store.addUser("bob", "pw");
    }
    static std::size_t count(const Account& a, const char* folder) { return a.folder(folder)->list().size(); }
    TempDir dir;
    MaildirStore store{dir.path()};
    MailDelivery delivery{store, "Example.ORG"};
};

TEST_F(MailDeliveryTest, LocalRecipientsGetInboxCopiesOthersAreQueuedAndSenderKeepsSentCopy) {
    Submission s{"ann@example.org",
                 {"bob@EXAMPLE.org", "ann@example.org", "far@elsewhere.net", "nobody@example.org"},
                 "Subject: t\r\n\r\nhi\r\n"};
    const auto result = delivery.deliver(*store.account("ann"), s, {"127.0.0.1", 1021371673});
    EXPECT_EQ(result.local, (std::vector<std::string>{"bob", "ann"}));
    EXPECT_EQ(result.queued, (std::vector<std::string>{"far@elsewhere.net", "nobody@example.org"}));
    const Account ann = *store.account("ann"), bob = *store.account("bob");
    EXPECT_EQ(count(ann, "INBOX"), 1u);
    EXPECT_EQ(count(bob, "Sent Items"), 0u);
    // Every copy starts with a trace field naming the account that posted it; one for a single recipient
    // names that recipient.
    const std::string trace =
        "Received: from [127.0.0.1] (authenticated account ann)\r\n\tby tarnwick-webmail (example.org) with HTTP\r\n";
    const std::string date = "; Tue, 14 May 2002 10:21:13 +0000\r\n";
    const auto inbox = bob.folder("INBOX")->list();
    ASSERT_EQ(inbox.size(), 1u);
    EXPECT_EQ(readFile(inbox[0].path), trace + "\tfor <bob@EXAMPLE.org>" + date + s.message);
    const auto sent = ann.folder("Sent Items")->list();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_TRUE(sent[0].seen());
    EXPECT_EQ(readFile(sent[0].path), trace + "\t" + date + s.message);
    const auto queued = ann.folder("Outbox")->list();
    ASSERT_EQ(queued.size(), 1u);
    EXPECT_EQ(readFile(queued[0].path), trace + "\t" + date +
                                            "X-Tarnwick-Envelope-From: <ann@example.org>\r\n"
                                            "X-Tarnwick-Envelope-To: <far@elsewhere.net>\r\n"
                                            "X-Tarnwick-Envelope-To: <nobody@example.org>\r\n" +
                                            s.message);
}

TEST_F(MailDeliveryTest, TraceFieldFollowsTheMessagesLineEndsAndDatesAreLocaleFree) {
    const Submission s{"", {"bob@example.org"}, "Subject: t\n\nhi\n"};
    delivery.deliver(*store.account("ann"), s, {"", 0});
    EXPECT_EQ(readFile(store.account("bob")->folder("INBOX")->list()[0].path),
              "Received: from unknown (authenticated account ann)\n\tby tarnwick-webmail (example.org) with HTTP\n"
              "\tfor <bob@example.org>; Thu, 1 Jan 1970 00:00:00 +0000\n" +
                  s.message);
    EXPECT_EQ(MailDelivery::rfc5322Date(1795000000), "Wed, 18 Nov 2026 11:06:40 +0000");
}

}  // namespace
