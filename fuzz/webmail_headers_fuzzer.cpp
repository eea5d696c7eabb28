// tarnwick-webmail's reading of a message header for the listing: what it reads must be fit for the XML reply
// (valid UTF-8 without control characters, a From text in printable ASCII). (That the listed size is the size
// served is the message file's unit table.)
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include "fuzz/FuzzCheck.h"
#include "tests/support/TempDir.h"
#include "webmail/dav/EncodedWords.h"
#include "webmail/dav/ListedMessage.h"
#include "webmail/store/MessageFile.h"
#include "webmail/text/Utf8.h"

using fuzz::Check;
using namespace webmail;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string raw(reinterpret_cast<const char*>(data), size);
    for (const char c : dav::EncodedWords::Encode(raw)) {
        Check(c >= ' ' && c <= '~', "the encoded From text is printable ASCII");
    }

    // Listed from a file, as the service lists a Maildir.
    static const TempDir dir;
    const std::filesystem::path path = dir.path() / "message";
    std::ofstream(path, std::ios::binary | std::ios::trunc) << raw;
    const auto file = store::MessageFile::Open(path);
    Check(file.has_value(), "a regular message file opens");
    const dav::ListedMessage listed = dav::ListedMessage::Read(store::MaildirEntry{"1.a.host", path, ""}, *file);
    // Clean text is what cleaning leaves unchanged: valid UTF-8, trimmed, without control characters.
    for (const std::string* field : {&listed.subject, &listed.from, &listed.to, &listed.fromAddress}) {
        Check(text::CleanText(*field) == *field, "listed header texts are clean UTF-8 without controls");
    }
    return 0;
}
