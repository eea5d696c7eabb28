// The 7-bit From text of the mailbox listing: 8-bit words as RFC 2047 encoded-words.
#include <gtest/gtest.h>

#include <algorithm>

#include "webmail/dav/EncodedWords.h"
#include "webmail/text/Utf8.h"

namespace {

using webmail::dav::EncodedWords;

int HexValue(char c) { return c <= '9' ? c - '0' : c - 'A' + 10; }

// What a mail reader shows for `header`: encoded-words decoded, the blanks between two of them dropped.
std::string Decoded(const std::string& header) {
    std::string out;
    std::string pendingBlank;
    bool lastWasEncoded = false;
    for (std::size_t i = 0; i < header.size();) {
        if (header[i] == ' ') {
            pendingBlank += ' ';
            ++i;
            continue;
        }
        const std::size_t end = std::min(header.find(' ', i), header.size());
        const std::string word = header.substr(i, end - i);
        const bool encoded = word.starts_with("=?UTF-8?Q?") && word.ends_with("?=");
        if (!(encoded && lastWasEncoded)) out += pendingBlank;
        pendingBlank.clear();
        if (!encoded) {
            out += word;
        } else {
            for (std::size_t k = 10; k + 2 < word.size(); ++k) {
                if (word[k] == '_') {
                    out += ' ';
                } else if (word[k] == '=') {
                    out += static_cast<char>(HexValue(word[k + 1]) * 16 + HexValue(word[k + 2]));
                    k += 2;
                } else {
                    out += word[k];
                }
            }
        }
        lastWasEncoded = encoded;
        i = end;
    }
    return out + pendingBlank;
}

struct Case {
    const char* name;
    std::string from;
    std::string expected;  // empty: checked only by the rules every result obeys
};

TEST(EncodedWordsTest, FromTextBecomesPrintableAsciiThatDecodesToTheSameText) {
    const std::vector<Case> cases = {
        {"ASCII passes unchanged", "Ann Example <ann@example.org>", "Ann Example <ann@example.org>"},
        {"empty", "", ""},
        {"UTF-8 words are encoded together, the address stays plain", "J\xC3\xBCrgen M\xC3\xBCller <j@x.org>",
         "=?UTF-8?Q?J=C3=BCrgen_M=C3=BCller?= <j@x.org>"},
        {"Latin-1 bytes are read as Latin-1 and sent as UTF-8", "Fran\xE7ois <francois@example.org>",
         "=?UTF-8?Q?Fran=C3=A7ois?= <francois@example.org>"},
        {"an existing encoded-word passes unchanged", "=?iso-8859-1?q?Ren=E9?= <rene@example.org>",
         "=?iso-8859-1?q?Ren=E9?= <rene@example.org>"},
        {"the blank after an existing encoded-word is kept inside the new one",
         "=?UTF-8?Q?J=C3=BCrgen?= M\xC3\xBCller <m@x.org>",
         "=?UTF-8?Q?J=C3=BCrgen?= =?UTF-8?Q?_M=C3=BCller?= <m@x.org>"},
        {"and the blank before one",
         "M\xC3\xBCller =?UTF-8?Q?J=C3=BCrgen?=", "=?UTF-8?Q?M=C3=BCller_?= =?UTF-8?Q?J=C3=BCrgen?="},
        {"an encoded surrogate and a cut-off sequence are Latin-1 too", "\xED\xA0\x80 \xC3",
         "=?UTF-8?Q?=C3=AD=C2=A0=C2=80_=C3=83?="},
        {"controls become spaces, surrounding blanks go", "\t Ann\tExample\x01<a@x.org>\r\n", "Ann Example <a@x.org>"},
        {"a quoted name with 8-bit bytes is encoded whole, quotes and specials too", "\"Zo\xC3\xAB, QA\" <z@x.org>",
         "=?UTF-8?Q?=22Zo=C3=AB=2C_QA=22?= <z@x.org>"},
        {"a quoted ASCII name stays as it is", "\"Ann \\\"A\\\" Example\" <a@x.org>",
         "\"Ann \\\"A\\\" Example\" <a@x.org>"},
        {"an 8-bit address is encoded with its name", "J\xC3\xB6rg <j\xC3\xB6rg@ex.de>",
         "=?UTF-8?Q?J=C3=B6rg_=3Cj=C3=B6rg=40ex=2Ede=3E?="},
        {"a long name is split between characters", std::string(30, 'a') + "\xE2\x82\xAC" + std::string(40, 'b'), ""},
        {"three-byte and four-byte characters", "\xE3\x81\x93\xE3\x82\x93 \xF0\x9F\x98\x80 <k@x.org>",
         "=?UTF-8?Q?=E3=81=93=E3=82=93_=F0=9F=98=80?= <k@x.org>"},
    };
    for (const auto& c : cases) {
        const std::string got = EncodedWords::Encode(c.from);
        if (!c.expected.empty() || c.from.empty()) {
            EXPECT_EQ(got, c.expected) << c.name;
        }
        for (char ch : got) EXPECT_TRUE(ch >= ' ' && ch <= '~') << c.name << ": " << got;
        std::size_t wordStart = 0;
        for (std::size_t i = 0; i <= got.size(); ++i) {
            if (i < got.size() && got[i] != ' ') continue;
            EXPECT_LE(i - wordStart, EncodedWords::kMaxWordLength) << c.name << ": " << got;
            wordStart = i + 1;
        }
        EXPECT_EQ(Decoded(got), Decoded(webmail::text::CleanText(c.from))) << c.name << ": " << got;
    }
}

TEST(EncodedWordsTest, LongRunsSplitIntoWordsThatKeepEachCharacterWhole) {
    std::string name;
    for (int i = 0; i < 40; ++i) name += "\xC3\xA9";  // forty e-acute, 240 characters once encoded
    const std::string got = EncodedWords::Encode(name);
    EXPECT_EQ(got.substr(0, 12), "=?UTF-8?Q?=C");
    EXPECT_EQ(got.find("=C3?="), std::string::npos) << got;
    EXPECT_GE(std::count(got.begin(), got.end(), ' '), 3) << got;
    EXPECT_EQ(Decoded(got), name);
}

}  // namespace
