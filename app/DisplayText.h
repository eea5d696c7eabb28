// How the window shows received bytes: as text a person can read, without changing what is logged.
#pragma once

#include <QString>

#include <string_view>

namespace app {

// Decodes `bytes` for display: each well-formed UTF-8 sequence as its character, every other byte as the
// Latin-1 character of the same value; CR LF becomes one line break.
QString DisplayText(std::string_view bytes);

}  // namespace app
