// Message files as the listing and GET read them: no links followed, exact served size, CR LF conversion
// while streaming. (The header and the attachment line are read in the listing's test.)
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "tests/support/TempDir.h"
#include "webmail/store/MessageFile.h"

namespace fs = std::filesystem;
using webmail::store::MessageFile;

namespace {

class MessageFileTest : public ::testing::Test {
protected:
    fs::path Write(const std::string& name, const std::string& bytes) {
        fs::path path = dir.path() / name;
        std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
        return path;
    }
    // Everything ReadServed gives, asked for at most `capacity` bytes at a time.
    static std::string Served(const MessageFile& file, std::size_t capacity) {
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
    TempDir dir;
};

TEST_F(MessageFileTest, ServesEveryBareLfAsCrLfWithTheListedSizeWhateverThePieceSize) {
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
        const auto file = MessageFile::Open(Write("m" + std::to_string(++n), raw));
        ASSERT_TRUE(file);
        const MessageFile::Facts facts = file->ReadFacts();
        EXPECT_EQ(facts.servedSize, expected.size()) << n;
        EXPECT_EQ(facts.bareLf, raw != expected) << n;
        for (std::size_t capacity : {2u, 3u, 7u, 65536u}) EXPECT_EQ(Served(*file, capacity), expected) << n;
    }
}

TEST_F(MessageFileTest, OpensOnlyRegularFilesNeverThroughALink) {
    const fs::path target = Write("target", "Subject: secret\r\n\r\n");
    fs::create_symlink(target, dir.path() / "link");
    fs::create_directory(dir.path() / "folder");
    ASSERT_EQ(::mkfifo((dir.path() / "fifo").c_str(), 0600), 0);  // opening it must not wait for a writer
    for (const char* name : {"link", "folder", "fifo", "missing"}) {
        EXPECT_FALSE(MessageFile::Open(dir.path() / name)) << name;
    }
    EXPECT_TRUE(MessageFile::Open(target));
}

}  // namespace
