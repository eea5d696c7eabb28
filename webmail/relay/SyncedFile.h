// Writing a file so that it is whole on disk before anything names it.
#pragma once

#include <filesystem>
#include <string_view>

namespace webmail::relay {

// Creates (or truncates) file without following a link, writes bytes and syncs them; throws
// std::runtime_error on failure, leaving no file behind.
void WriteSynced(const std::filesystem::path& file, std::string_view bytes);

}  // namespace webmail::relay
