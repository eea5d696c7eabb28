// Service date texts ("2002-05-14T10:21:13") in the user's regional forms: short date, a space, long time.
// The platform's locale settings stay behind this interface (Qt's QLocale today).
#pragma once

#include <string>

namespace platform {

class RegionalDateFormat {
public:
    // `dateText` split at its first "T" into a date and a time, written in the default QLocale's short date
    // and long time forms (the system locale unless a test installed another with QLocale::setDefault).
    // Raises 13 (Type mismatch) when there is no "T" or either part cannot be read.
    static std::string Format(const std::string& dateText);

    // The default QLocale's long time format without its time-zone name, which the regional long time of a
    // desktop setting (10:21:13) does not show.
    static std::string LongTimeFormat();
};

}  // namespace platform
