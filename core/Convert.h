// Number conversions from text, as the protocols need them: surrounding spaces are accepted, a decimal
// fraction rounds to the nearest whole number with halves going to the even neighbour. Text that is not a
// number raises error 13 (Type mismatch); a value outside the target range raises error 6 (Overflow).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace core {

// Decimal text (optional sign, digits, optional fraction and exponent) to a double; raises 13 otherwise.
double ToDouble(std::string_view text);

// A double rounded half-to-even into the 16-bit or 32-bit signed range; raises 6 when it does not fit.
std::int16_t RoundToInt16(double value);
std::int32_t RoundToInt32(double value);

// Text to a 16-bit / 32-bit signed number, by the rules above.
std::int16_t ToInt16(std::string_view text);
std::int32_t ToInt32(std::string_view text);

// Plain decimal text of a number: no leading zeros, no separators.
std::string ToText(std::int64_t value);

}  // namespace core
