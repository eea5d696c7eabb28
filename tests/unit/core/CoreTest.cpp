// The core: number conversions from protocol text (surrounding spaces, half-to-even rounding, error 13 for text
// that is not a number, 6 for one that does not fit) and the spool file, which no one else can open. (A spool
// write the disk refuses is checked where the reader sees it, in the POP3 and SMTP handlers; texts read back
// piece by piece in the RETR response.)
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "core/Convert.h"
#include "core/SpoolFile.h"
#include "tests/support/RaisedError.h"

namespace {

using testing_support::RaisedErrorNumber;

struct Case {
    const char* text;
    std::int32_t value;  // when no error
    std::int32_t error;  // 0: none
};

TEST(Convert, ToInt16RoundsHalfToEvenAndRefusesWhatIsNotASixteenBitNumber) {
    const Case cases[] = {
        {"1", 1, 0},         {"02", 2, 0},        {" 2", 2, 0},         {"2  ", 2, 0},          {"-7", -7, 0},
        {"+3", 3, 0},        {"32767", 32767, 0}, {"-32768", -32768, 0}, {"2.5", 2, 0},         {"3.5", 4, 0},
        {"-2.5", -2, 0},     {"1.6", 2, 0},       {"1e2", 100, 0},      {".5", 0, 0},           {"", 0, 13},
        {"   ", 0, 13},      {"abc", 0, 13},      {"1a", 0, 13},        {"1 2", 0, 13},         {"--1", 0, 13},
        {".", 0, 13},        {"1e", 0, 13},       {"32768", 0, 6},      {"-32769", 0, 6},       {"32767.5", 0, 6},
        {"1e400", 0, 6},
    };
    for (const Case& c : cases) {
        std::int32_t value = 0;
        EXPECT_EQ(RaisedErrorNumber([&] { value = core::ToInt16(c.text); }), c.error) << "[" << c.text << "]";
        if (c.error == 0) {
            EXPECT_EQ(value, c.value) << "[" << c.text << "]";
        }
    }
}

TEST(SpoolFile, HasNoNameAndOnlyItsOwnerMayReadIt) {
    // A new descriptor takes the lowest number free: the spool's is the one a probe has just given back.
    const int probe = open("/dev/null", O_RDONLY);
    ASSERT_GE(probe, 0);
    close(probe);
    const std::shared_ptr<core::SpoolFile> file = core::SpoolFile::Create();
    file->Append("secret");
    struct stat st {};
    ASSERT_EQ(fstat(probe, &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode) && st.st_size == 6) << "descriptor " << probe << " is not the spool";
    EXPECT_EQ(st.st_nlink, 0U);
    EXPECT_EQ(st.st_mode & 0777, 0600U);
}

}  // namespace
