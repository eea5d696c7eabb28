// The spool file: a file no one else can open. (A write the disk refuses is checked where the reader sees
// it, in the POP3 and SMTP handlers; texts read back piece by piece in the RETR response.)
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "core/SpoolFile.h"

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

}  // namespace
