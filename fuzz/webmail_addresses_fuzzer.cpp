// tarnwick-webmail's address decoding: percent-decoding and encoding, request paths, the addresses a request
// names (folder, message, Destination) and the envelope and header addresses of a message.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fuzz/FuzzCheck.h"
#include "webmail/dav/RequestParser.h"
#include "webmail/dav/UrlCodec.h"
#include "webmail/text/MailAddress.h"

namespace {

using fuzz::Check;
using namespace webmail;
namespace UrlCodec = webmail::dav::UrlCodec;

bool IsHex(char c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f'); }

// A name that stays inside its parent folder: not empty, not "." or "..", no separator and no NUL.
bool IsConfinedName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." &&
           name.find_first_of(std::string("/\\\0", 3)) == std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);

    const std::string encoded = UrlCodec::EncodeSegment(input);
    for (std::size_t i = 0; i < encoded.size(); ++i) {
        if (encoded[i] == '%') {
            Check(i + 2 < encoded.size() && IsHex(encoded[i + 1]) && IsHex(encoded[i + 2]), "%HH escapes only");
        } else {
            Check(encoded[i] != '/' && static_cast<unsigned char>(encoded[i]) > ' ' &&
                      static_cast<unsigned char>(encoded[i]) < 127,
                  "an encoded segment holds no separator, space, control or 8-bit byte");
        }
    }
    Check(UrlCodec::Decode(encoded) == input, "decoding an encoded segment gives the input back");
    (void)UrlCodec::Decode(input);

    if (const auto segments = UrlCodec::SplitPath(input)) {
        for (const std::string& s : *segments) Check(IsConfinedName(s), "path segments stay inside their folder");
    }
    if (const auto path = UrlCodec::PathOfUrl(input)) Check(path->starts_with("/"), "a URL's path starts with /");

    const dav::ServiceTarget target = dav::RequestParser::Target(input);
    using Kind = dav::ServiceTarget::Kind;
    if (target.kind != Kind::Unknown && target.kind != Kind::Entry) {
        Check(IsConfinedName(target.user), "the account named by a path is one folder name");
    }
    if (target.kind == Kind::Folder || target.kind == Kind::Message) {
        Check(IsConfinedName(target.folder), "the folder named by a path is one folder name");
    }
    if (target.kind == Kind::Message) Check(IsConfinedName(target.id), "the message id is one file name");

    Check(input.find(text::EnvelopeAddress(input)) != std::string::npos, "an envelope address is cut from its line");
    (void)text::HeaderAddress(input);
    return 0;
}
