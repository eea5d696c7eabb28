// tarnwick-webmail's reading of a message header for the listing: what it reads must be fit for the XML reply
// (valid UTF-8 without control characters, a From text in printable ASCII). (That the listed size is the size
// served is the message file's unit table.)
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>

#include "fuzz/FuzzCheck.h"
#include "webmail/dav/EncodedWords.h"
#include "webmail/dav/ListedMessage.h"
#include "webmail/store/MessageFile.h"
#include "webmail/text/Utf8.h"

namespace {

using fuzz::Check;
using namespace webmail;

// Clean text is what cleaning leaves unchanged: valid UTF-8 (anything else is read again as Latin-1), trimmed,
// without control characters.
bool IsClean(const std::string& s) { return text::CleanText(s) == s; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string raw(reinterpret_cast<const char*>(data), size);
    for (const char c : dav::EncodedWords::Encode(raw)) {
        Check(c >= ' ' && c <= '~', "the encoded From text is printable ASCII");
    }

    // Listed from a file, as the service lists a Maildir.
    static const struct ScratchFile {
        std::filesystem::path path =
            std::filesystem::temp_directory_path() / ("webmail_headers_fuzzer." + std::to_string(::getpid()));
        ~ScratchFile() { std::filesystem::remove(path); }
    } scratch;
    const std::filesystem::path& path = scratch.path;
    if (std::FILE* f = std::fopen(path.c_str(), "wb")) {
        std::fwrite(raw.data(), 1, raw.size(), f);
        std::fclose(f);
    }
    const auto file = store::MessageFile::Open(path);
    Check(file.has_value(), "a regular message file opens");
    const dav::ListedMessage listed = dav::ListedMessage::Read(store::MaildirEntry{"1.a.host", path, ""}, *file);
    for (const std::string* field : {&listed.subject, &listed.from, &listed.to, &listed.fromAddress}) {
        Check(IsClean(*field), "listed header texts are clean UTF-8 without controls");
    }
    return 0;
}
