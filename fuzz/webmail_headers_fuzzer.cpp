// tarnwick-webmail's reading of a message header for the listing: what it reads must be fit for the XML reply
// (valid UTF-8, no control characters) and the served text must have CR LF line ends only.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include <unistd.h>

#include <filesystem>

#include "fuzz/FuzzCheck.h"
#include "webmail/dav/ListedMessage.h"
#include "webmail/store/MessageFile.h"
#include "webmail/text/MailDate.h"
#include "webmail/text/Utf8.h"

namespace {

using fuzz::Check;
using namespace webmail;

// Well-formed UTF-8 (no overlong forms, no surrogates, nothing above U+10FFFF) without C0 controls.
bool IsCleanText(std::string_view s) {
    for (std::size_t i = 0; i < s.size();) {
        const auto c = static_cast<unsigned char>(s[i]);
        if (c < 0x80) {
            if (c < 0x20) return false;
            ++i;
            continue;
        }
        std::size_t n = c >= 0xF0 ? 3 : c >= 0xE0 ? 2 : c >= 0xC2 ? 1 : 0;
        if (n == 0 || c > 0xF4) return false;
        std::uint32_t cp = c & (0x3F >> n);
        for (std::size_t k = 1; k <= n; ++k) {
            if (i + k >= s.size()) return false;
            const auto t = static_cast<unsigned char>(s[i + k]);
            if ((t & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (t & 0x3F);
        }
        if ((n == 2 && cp < 0x800) || (n == 3 && (cp < 0x10000 || cp > 0x10FFFF)) || (cp >= 0xD800 && cp <= 0xDFFF))
            return false;
        i += n + 1;
    }
    return true;
}

bool IsIsoTime(const std::string& t) {
    static constexpr std::string_view kShape = "dddd-dd-ddTdd:dd:dd";
    if (t.size() != kShape.size()) return false;
    for (std::size_t i = 0; i < t.size(); ++i) {
        if (kShape[i] == 'd' ? !(t[i] >= '0' && t[i] <= '9') : t[i] != kShape[i]) return false;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string raw(reinterpret_cast<const char*>(data), size);
    if (const auto date = text::IsoDate(raw)) Check(IsIsoTime(*date), "a read date is YYYY-MM-DDTHH:MM:SS");
    Check(IsCleanText(text::CleanText(raw)), "CleanText gives clean UTF-8 without controls");

    // Listed and served from a file, the served text in small pieces, so that a CR LF made for a bare LF can
    // fall on a piece's edge.
    struct ScratchFile {
        std::filesystem::path path =
            std::filesystem::temp_directory_path() / ("webmail_headers_fuzzer." + std::to_string(::getpid()));
        ~ScratchFile() { std::filesystem::remove(path); }
    };
    static const ScratchFile scratch;
    const std::filesystem::path& path = scratch.path;
    if (std::FILE* f = std::fopen(path.c_str(), "wb")) {
        std::fwrite(raw.data(), 1, raw.size(), f);
        std::fclose(f);
    }
    const std::optional<store::MessageFile> file = store::MessageFile::Open(path);
    Check(file.has_value(), "a regular message file opens");
    const dav::ListedMessage listed = dav::ListedMessage::Read(store::MaildirEntry{"1.a.host", path, ""}, *file);
    for (const std::string* field : {&listed.subject, &listed.from, &listed.to, &listed.fromAddress}) {
        Check(IsCleanText(*field), "listed header texts are clean UTF-8 without controls");
    }
    Check(IsIsoTime(listed.date), "the listed date is YYYY-MM-DDTHH:MM:SS");
    std::string served;
    std::uint64_t offset = 0;
    bool lastCr = false;
    char piece[7];
    for (long n; (n = file->ReadServed(offset, lastCr, piece, sizeof piece)) > 0;) served.append(piece, n);
    std::string expected;
    for (std::size_t i = 0; i < raw.size(); ++i) {
        if (raw[i] == '\n' && (i == 0 || raw[i - 1] != '\r')) expected += '\r';
        expected += raw[i];
    }
    Check(served == expected, "serving adds one CR before each bare LF and nothing else");
    Check(listed.size == served.size(), "the listed size is the size served");
    return 0;
}
