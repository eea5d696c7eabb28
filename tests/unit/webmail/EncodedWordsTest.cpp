// The 7-bit From text of the mailbox listing: 8-bit words as RFC 2047 encoded-words of at most 75 characters,
// each character whole. (That every result is printable ASCII is a rule the headers fuzz target checks.)
#include <gtest/gtest.h>

#include "webmail/dav/EncodedWords.h"

namespace {

using webmail::dav::EncodedWords;

std::string Repeat(const std::string& text, int times) {
    std::string out;
    for (int i = 0; i < times; ++i) out += text;
    return out;
}

TEST(EncodedWordsTest, EightBitWordsBecomeEncodedWordsOfWholeCharacters) {
    const std::string e10 = "=?UTF-8?Q?" + Repeat("=C3=A9", 10) + "?=";
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
        {"an encoded surrogate and a cut-off sequence are Latin-1 too", "\xED\xA0\x80 \xC3",
         "=?UTF-8?Q?=C3=AD=C2=A0=C2=80_=C3=83?="},
        {"controls become spaces, surrounding blanks go", "\t Ann\tExample\x01<a@x.org>\r\n", "Ann Example <a@x.org>"},
        {"a quoted name with 8-bit bytes is encoded whole, quotes and specials too", "\"Zo\xC3\xAB, QA\" <z@x.org>",
         "=?UTF-8?Q?=22Zo=C3=AB=2C_QA=22?= <z@x.org>"},
        {"an 8-bit address is encoded with its name", "J\xC3\xB6rg <j\xC3\xB6rg@ex.de>",
         "=?UTF-8?Q?J=C3=B6rg_=3Cj=C3=B6rg=40ex=2Ede=3E?="},
        {"a long name is split at 75 characters, between characters",
         std::string(30, 'a') + "\xE2\x82\xAC" + std::string(40, 'b'),
         "=?UTF-8?Q?" + std::string(30, 'a') + "=E2=82=AC" + std::string(24, 'b') + "?= =?UTF-8?Q?" +
             std::string(16, 'b') + "?="},
        {"a long run of two-byte characters", Repeat("\xC3\xA9", 40), e10 + " " + e10 + " " + e10 + " " + e10},
    };
    for (const auto& c : cases) EXPECT_EQ(EncodedWords::Encode(c.from), c.expected) << c.name;
}

}  // namespace
