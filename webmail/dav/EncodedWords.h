// Header text in 7-bit form, with RFC 2047 encoded-words for the words that carry 8-bit bytes.
#pragma once

#include <string>
#include <string_view>

namespace webmail::dav {

class EncodedWords {
public:
    // `phrase` as printable ASCII. Bytes are read as the listing reads header text (UTF-8 where valid, other
    // bytes as Latin-1; controls become spaces; surrounding blanks trimmed). Words of printable ASCII,
    // existing encoded-words among them, pass unchanged; each run of words holding other characters becomes
    // "=?UTF-8?Q?...?=" words of at most 75 characters, which decode to the run exactly.
    static std::string Encode(std::string_view phrase);

    // The longest encoded-word RFC 2047 allows.
    static constexpr std::size_t kMaxWordLength = 75;
};

}  // namespace webmail::dav
