// The RETR response over arbitrary message texts (the other answers are proved by unit tables): it must carry
// the message through the multi-line framing unchanged: the only CR LF "." CR LF on the wire is the end, and
// undoing the dot stuffing gives the message text back.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "fuzz/FuzzCheck.h"
#include "servers/pop3/MPop3Responses.h"

namespace R = servers::pop3::MPop3Responses;

namespace {

using fuzz::Check;

// One "." taken off the front of every line (lines start at the beginning and after each CR LF) that has one.
std::string UnstuffDots(std::string_view text) {
    std::string out;
    std::size_t start = 0;
    while (true) {
        if (start < text.size() && text[start] == '.') ++start;
        const std::size_t next = text.find("\r\n", start);
        if (next == std::string_view::npos) {
            out.append(text.substr(start));
            return out;
        }
        out.append(text.substr(start, next + 2 - start));
        start = next + 2;
    }
}

void CheckRetr(const std::string& body) {
    mailservice::CHotmailMessage message;
    message.mLength = std::to_string(body.size());
    message.mBody = core::SpoolText::Store(body);
    const std::string head = "+OK " + message.mLength + " octets\r\nX-Application: Tarnwick Gateway - 0.2.0\r\n";
    // What goes on the wire: the response and the CR LF the frame adds.
    const std::string wire = R::BuildRETRResponse(message, "Tarnwick Gateway", "0.2.0") + "\r\n";
    Check(wire.starts_with(head), "RETR starts with the status and X-Application lines");
    Check(wire.ends_with("\r\n.\r\n"), "RETR ends with the terminating line");
    Check(wire.find("\r\n.\r\n") == wire.size() - 5, "no line of the message text ends the response early");
    const std::string_view stuffed = std::string_view(wire).substr(head.size(), wire.size() - head.size() - 5);
    Check(UnstuffDots(stuffed) == body, "undoing the dot stuffing gives the message text back");
    Check(R::StuffDots(body) == stuffed, "the body part is StuffDots of the message text");
    const std::size_t pieceBytes = 1 + body.size() % 7;
    Check(
        core::ReadAllPieces(*R::RETRResponsePieces(message, "Tarnwick Gateway", "0.2.0", pieceBytes)) + "\r\n" == wire,
        "RETR read in small pieces is the same text");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    CheckRetr(text);
    return 0;
}
