// How the log box shows received bytes: UTF-8 where it is well-formed, one Latin-1 character per byte
// elsewhere, one line break per CR LF.
#include <gtest/gtest.h>

#include <string>

#include "app/DisplayText.h"

namespace {

struct Case {
    const char* name;
    std::string bytes;
    std::u16string shown;
};

TEST(DisplayTextTest, DecodesWellFormedUtf8AndEveryOtherByteAsLatin1) {
    const Case cases[] = {
        {"ascii and CR LF", "+OK\r\nline\r\n", u"+OK\nline\n"},
        {"lone CR and lone LF stay", "a\rb\nc", u"a\rb\nc"},
        {"two-byte UTF-8", "Sch\xC3\xB6ne", u"Sch\u00F6ne"},
        {"three-byte UTF-8", "\xE2\x82\xAC 5", u"\u20AC 5"},
        {"overlong three-byte form", "\xE0\x80\xAF", u"\u00E0\u0080\u00AF"},
        {"four-byte UTF-8", "\xF0\x9F\x93\xA7", u"\U0001F4E7"},
        {"Latin-1 byte", "Sch\xF6ne", u"Sch\u00F6ne"},
        {"UTF-8 and Latin-1 in one entry", "\xC3\xA9t\xE9", u"\u00E9t\u00E9"},
        {"overlong slash", "\xC0\xAF", u"\u00C0\u00AF"},
        {"surrogate", "\xED\xA0\x80", u"\u00ED\u00A0\u0080"},
        {"above U+10FFFF", "\xF4\x90\x80\x80", u"\u00F4\u0090\u0080\u0080"},
        {"sequence cut short at the end", "ab\xE2\x82", u"ab\u00E2\u0082"},
        {"stray continuation byte", "\x80x", u"\u0080x"},
        {"NUL", std::string("a\0b", 3), std::u16string(u"a\0b", 3)},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(app::DisplayText(c.bytes), QString::fromStdU16String(c.shown)) << c.name;
    }
}

}  // namespace
