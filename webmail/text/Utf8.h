// Header text made fit for an XML reply.
#pragma once

#include <string>
#include <string_view>

namespace webmail::text {

// `text` as valid UTF-8 (bytes that are not UTF-8 are read as Latin-1), with control characters turned to
// spaces and the spaces and tabs around it trimmed.
std::string CleanText(std::string_view text);

}  // namespace webmail::text
