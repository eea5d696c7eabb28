// tarnwick-webmail's address decoding: percent-decoding and encoding, request paths, the addresses a request
// names (folder, message, Destination) and the envelope and header addresses of a message.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/FuzzCheck.h"
#include "webmail/dav/RequestParser.h"
#include "webmail/dav/UrlCodec.h"
#include "webmail/text/MailAddress.h"

using fuzz::Check;
using namespace webmail;
namespace UrlCodec = webmail::dav::UrlCodec;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::string encoded = UrlCodec::EncodeSegment(input);
    for (const char c : encoded) Check(c > ' ' && c < 127 && c != '/', "an encoded segment is printable, no separator");
    Check(UrlCodec::Decode(encoded) == input, "decoding an encoded segment gives it back");
    // Which segments a path may hold is the path parser's unit table; the names a path gives are its segments.
    (void)dav::RequestParser::Target(input);
    Check(input.find(text::EnvelopeAddress(input)) != std::string::npos, "an envelope address is cut from its line");
    (void)text::HeaderAddress(input);
    (void)UrlCodec::PathOfUrl(input);
    return 0;
}
