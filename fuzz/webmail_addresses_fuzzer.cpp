// tarnwick-webmail's address decoding: percent-decoding and encoding, request paths, the addresses a request
// names (folder, message, Destination) and the envelope and header addresses of a message.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/FuzzCheck.h"
#include "webmail/dav/RequestParser.h"
#include "webmail/dav/UrlCodec.h"
#include "webmail/text/MailAddress.h"

namespace {

using fuzz::Check;
using namespace webmail;
namespace UrlCodec = webmail::dav::UrlCodec;

// A name that stays inside its parent folder: not empty, not "." or "..", no separator and no NUL.
bool IsConfinedName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." &&
           name.find_first_of(std::string("/\\\0", 3)) == std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::string encoded = UrlCodec::EncodeSegment(input);
    for (const char c : encoded) Check(c > ' ' && c < 127 && c != '/', "an encoded segment is printable, no separator");
    Check(UrlCodec::Decode(encoded) == input, "decoding an encoded segment gives it back");
    (void)UrlCodec::SplitPath(input);  // which segments it refuses is the path parser's unit table
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
    (void)UrlCodec::PathOfUrl(input);
    return 0;
}
