// The RETR response over arbitrary message texts (the other answers are proved by unit tables): the only
// CR LF "." CR LF on the wire is the end, undoing the dot stuffing gives the message text back, and reading
// it in small pieces gives the same text.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/FuzzCheck.h"
#include "servers/pop3/MPop3Responses.h"

namespace R = servers::pop3::MPop3Responses;
using fuzz::Check;

namespace {

// One "." taken off the front of every line (lines start at the beginning and after each CR LF) that has one.
std::string UnstuffDots(std::string_view text) {
    std::string out;
    for (std::size_t start = 0;;) {
        if (start < text.size() && text[start] == '.') ++start;
        const std::size_t next = text.find("\r\n", start);
        if (next == std::string_view::npos) return out.append(text.substr(start));
        out.append(text.substr(start, next + 2 - start));
        start = next + 2;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string body(reinterpret_cast<const char*>(data), size);
    mailservice::CHotmailMessage message;
    message.mLength = std::to_string(body.size());
    message.mBody = core::SpoolText::Store(body);
    const std::string head = "+OK " + message.mLength + " octets\r\nX-Application: Tarnwick Gateway - 0.2.0\r\n";
    // What goes on the wire: the response and the CR LF the frame adds.
    const std::string wire = R::BuildRETRResponse(message, "Tarnwick Gateway", "0.2.0") + "\r\n";
    Check(wire.starts_with(head) && wire.find("\r\n.\r\n") == wire.size() - 5, "the end line ends RETR, only it");
    const std::string_view stuffed = std::string_view(wire).substr(head.size(), wire.size() - head.size() - 5);
    Check(UnstuffDots(stuffed) == body, "undoing the dot stuffing gives the message text back");
    const std::size_t pieceBytes = 1 + body.size() % 7;
    Check(
        core::ReadAllPieces(*R::RETRResponsePieces(message, "Tarnwick Gateway", "0.2.0", pieceBytes)) + "\r\n" == wire,
        "RETR read in small pieces is the same text");
    return 0;
}
