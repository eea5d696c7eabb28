#include <gtest/gtest.h>

#include "core/Convert.h"
#include "core/Error.h"

namespace {

using core::Error;

struct Int16Case {
    const char* text;
    std::int16_t expected;
};

class ToInt16Accepts : public ::testing::TestWithParam<Int16Case> {};

TEST_P(ToInt16Accepts, GivesTheRoundedValue) {
    EXPECT_EQ(core::ToInt16(GetParam().text), GetParam().expected) << "text: [" << GetParam().text << "]";
}

INSTANTIATE_TEST_SUITE_P(Texts, ToInt16Accepts,
                         ::testing::Values(Int16Case{"1", 1}, Int16Case{"02", 2}, Int16Case{" 2", 2},
                                           Int16Case{"2  ", 2}, Int16Case{"-7", -7}, Int16Case{"+3", 3},
                                           Int16Case{"32767", 32767}, Int16Case{"-32768", -32768}, Int16Case{"2.5", 2},
                                           Int16Case{"3.5", 4}, Int16Case{"0.5", 0}, Int16Case{"-2.5", -2},
                                           Int16Case{"1.4", 1}, Int16Case{"1.6", 2}, Int16Case{"1e2", 100},
                                           Int16Case{".5", 0}));

struct Failure {
    const char* text;
    std::int32_t number;
};

class ToInt16Refuses : public ::testing::TestWithParam<Failure> {};

TEST_P(ToInt16Refuses, WithTheRightError) {
    try {
        core::ToInt16(GetParam().text);
        FAIL() << "no error for [" << GetParam().text << "]";
    } catch (const Error& e) {
        EXPECT_EQ(e.Number(), GetParam().number) << "text: [" << GetParam().text << "]";
        EXPECT_FALSE(e.Description().empty());
    }
}

INSTANTIATE_TEST_SUITE_P(Texts, ToInt16Refuses,
                         ::testing::Values(Failure{"", 13}, Failure{"   ", 13}, Failure{"abc", 13}, Failure{"1a", 13},
                                           Failure{"1 2", 13}, Failure{"--1", 13}, Failure{".", 13}, Failure{"1e", 13},
                                           Failure{"32768", 6}, Failure{"-32769", 6}, Failure{"32767.5", 6},
                                           Failure{"1e400", 6}));

TEST(ToInt32, CoversTheWiderRangeAndRefusesBeyondIt) {
    EXPECT_EQ(core::ToInt32("110"), 110);
    EXPECT_EQ(core::ToInt32(" 2147483647 "), 2147483647);
    EXPECT_EQ(core::ToInt32("65536"), 65536);
    try {
        core::ToInt32("2147483648");
        FAIL();
    } catch (const Error& e) {
        EXPECT_EQ(e.Number(), 6);
        EXPECT_EQ(e.Description(), "Overflow");
    }
    try {
        core::ToInt32("pop3");
        FAIL();
    } catch (const Error& e) {
        EXPECT_EQ(e.Number(), 13);
        EXPECT_EQ(e.Description(), "Type mismatch");
    }
}

TEST(RoundToInt32, SumsOfSizesRoundHalfToEven) {
    EXPECT_EQ(core::RoundToInt32(2030.0), 2030);
    EXPECT_EQ(core::RoundToInt32(10.5), 10);
    EXPECT_EQ(core::RoundToInt32(11.5), 12);
}

}  // namespace
