// Number conversions from protocol text: surrounding spaces, half-to-even rounding, and the errors for text
// that is not a number (13) or does not fit (6).
#include <gtest/gtest.h>

#include <cstdint>

#include "core/Convert.h"
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

}  // namespace
