// The spool file: a file no one else can open, and a failed write that stays failed, so that no text cut
// short passes as whole. (Texts read back stretch by stretch and piece by piece are checked where they are
// used: the listing's records and the RETR response.)
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "core/Error.h"
#include "core/SpoolFile.h"
#include "tests/support/FileSizeLimit.h"

namespace {

TEST(SpoolFile, HasNoNameAndOnlyItsOwnerMayReadIt) {
    const std::shared_ptr<core::SpoolFile> file = core::SpoolFile::Create();
    file->Append("secret");
    // Every descriptor of the process: the spool's is the one that links to a file that is gone.
    int found = 0;
    for (int fd = 0; fd < 1024; ++fd) {
        char target[512] = {};
        const std::string link = "/proc/self/fd/" + std::to_string(fd);
        const ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
        struct stat st {};
        if (n <= 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size != 6) continue;
        ++found;
        EXPECT_TRUE(std::string(target, static_cast<std::size_t>(n)).ends_with(" (deleted)")) << target;
        EXPECT_EQ(st.st_nlink, 0U);
        EXPECT_EQ(st.st_mode & 0777, 0600U);
    }
    EXPECT_EQ(found, 1);
}

// The file size limit makes the system refuse the write exactly as a full disk does, without privileges.
TEST(SpoolFile, AWriteTheSystemRefusesIsDiskFullAndStaysFailed) {
    const std::shared_ptr<core::SpoolFile> file = core::SpoolFile::Create();
    testing_support::FileSizeLimit limit(4096);
    ASSERT_TRUE(limit.Active());
    std::int32_t number = 0;
    std::string description;
    try {
        file->Append(std::string(10000, 'q'));
    } catch (const core::Error& e) {
        number = e.Number();
        description = e.Description();
    }
    ASSERT_TRUE(limit.Lift());
    EXPECT_EQ(number, core::ErrorNumber::kDiskFull);
    EXPECT_EQ(description, "Disk full");
    // With room again, the failed file still refuses: its last text is incomplete.
    EXPECT_THROW(file->CheckWritten(), core::Error);
    EXPECT_THROW(file->Append("more"), core::Error);
}

}  // namespace
