// The 7-bit From text of the mailbox listing: 8-bit words as RFC 2047 encoded-words of at most 75 characters,
// each character whole. (That every result is printable ASCII is a rule the headers fuzz target checks.)
#include <gtest/gtest.h>

#include "webmail/dav/EncodedWords.h"

namespace {

using webmail::dav::EncodedWords;

TEST(EncodedWordsTest, EightBitWordsBecomeEncodedWordsOfWholeCharacters) {
    const struct {
        const char* name;
        std::string from;
        std::string expected;
    } cases[] = {
        {"ASCII passes unchanged", "Ann Example <ann@example.org>", "Ann Example <ann@example.org>"},
        {"UTF-8 words are encoded together, the address stays plain", "J\xC3\xBCrgen M\xC3\xBCller <j@x.org>",
         "=?UTF-8?Q?J=C3=BCrgen_M=C3=BCller?= <j@x.org>"},
        {"Latin-1 bytes are read as Latin-1 and sent as UTF-8", "Fran\xE7ois <francois@example.org>",
         "=?UTF-8?Q?Fran=C3=A7ois?= <francois@example.org>"},
        {"an existing encoded-word passes unchanged", "=?iso-8859-1?q?Ren=E9?= <rene@example.org>",
         "=?iso-8859-1?q?Ren=E9?= <rene@example.org>"},
        {"the blank after an existing encoded-word is kept inside the new one",
         "=?UTF-8?Q?J=C3=BCrgen?= M\xC3\xBCller <m@x.org>", "=?UTF-8?Q?J=C3=BCrgen?= =?UTF-8?Q?_M=C3=BCller?= <m@x.org>"},
        {"a quoted name with 8-bit bytes is encoded whole, quotes and specials too", "\"Zo\xC3\xAB, QA\" <z@x.org>",
         "=?UTF-8?Q?=22Zo=C3=AB=2C_QA=22?= <z@x.org>"},
        {"a long name is split at 75 characters, between characters",
         std::string(30, 'a') + "\xE2\x82\xAC" + std::string(40, 'b'),
         "=?UTF-8?Q?" + std::string(30, 'a') + "=E2=82=AC" + std::string(24, 'b') + "?= =?UTF-8?Q?" +
             std::string(16, 'b') + "?="},
    };
    for (const auto& c : cases) EXPECT_EQ(EncodedWords::Encode(c.from), c.expected) << c.name;
}

}  // namespace
