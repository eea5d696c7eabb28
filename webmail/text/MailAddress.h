// Mail addresses as header fields and envelope lines write them.
#pragma once

#include <string>
#include <string_view>

namespace webmail::text {

// The bare address of a header field's text: the one inside "<...>" if present, otherwise the first word
// holding an "@", otherwise the first word.
std::string HeaderAddress(std::string_view text);
// The address of an envelope line's argument: the one inside "<...>" when present, else the first word;
// extra words (SIZE=...) are dropped.
std::string EnvelopeAddress(std::string_view text);
// The text two addresses share when they name the same mailbox: the local part as it is (it may be
// case-sensitive), the domain lower-cased (it never is).
std::string AddressKey(std::string_view address);

}  // namespace webmail::text
