#include "core/Convert.h"

#include <charconv>
#include <cmath>
#include <limits>
#include <system_error>

#include "core/Ascii.h"
#include "core/Error.h"

namespace core {
namespace {

bool IsSpace(char c) { return c == ' ' || c == '\t'; }

// Accepts [sign] digits [. digits] [e|E [sign] digits], at least one digit before or after the point.
bool IsDecimalNumber(std::string_view s) {
    std::size_t i = 0;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) ++i;
    std::size_t digits = 0;
    while (i < s.size() && Ascii::IsDigit(s[i])) ++i, ++digits;
    if (i < s.size() && s[i] == '.') {
        ++i;
        while (i < s.size() && Ascii::IsDigit(s[i])) ++i, ++digits;
    }
    if (digits == 0) return false;
    if (i < s.size() && (s[i] == 'e' || s[i] == 'E')) {
        ++i;
        if (i < s.size() && (s[i] == '+' || s[i] == '-')) ++i;
        std::size_t expDigits = 0;
        while (i < s.size() && Ascii::IsDigit(s[i])) ++i, ++expDigits;
        if (expDigits == 0) return false;
    }
    return i == s.size();
}

template <typename Int>
Int RoundInto(double value) {
    // nearbyint rounds half to even under the default rounding mode.
    const double r = std::nearbyint(value);
    if (!std::isfinite(r) || r < static_cast<double>(std::numeric_limits<Int>::min()) ||
        r > static_cast<double>(std::numeric_limits<Int>::max())) {
        Raise(ErrorNumber::kOverflow);
    }
    return static_cast<Int>(r);
}

}  // namespace

double ToDouble(std::string_view text) {
    while (!text.empty() && IsSpace(text.front())) text.remove_prefix(1);
    while (!text.empty() && IsSpace(text.back())) text.remove_suffix(1);
    if (!IsDecimalNumber(text)) Raise(ErrorNumber::kTypeMismatch);
    // from_chars ignores the C locale (Qt sets it from the environment) and takes no leading '+'.
    if (text.front() == '+') text.remove_prefix(1);
    double value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec == std::errc::result_out_of_range || !std::isfinite(value)) Raise(ErrorNumber::kOverflow);
    if (ec != std::errc() || end != text.data() + text.size()) Raise(ErrorNumber::kTypeMismatch);
    return value;
}

std::int16_t RoundToInt16(double value) { return RoundInto<std::int16_t>(value); }
std::int32_t RoundToInt32(double value) { return RoundInto<std::int32_t>(value); }

std::int16_t ToInt16(std::string_view text) { return RoundToInt16(ToDouble(text)); }
std::int32_t ToInt32(std::string_view text) { return RoundToInt32(ToDouble(text)); }

std::string ToText(std::int64_t value) { return std::to_string(value); }

}  // namespace core
