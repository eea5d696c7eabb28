// The RETR response over arbitrary message texts (its dot stuffing and its pieces are proved by a unit table):
// the only CR LF "." CR LF on the wire is the end, so no message text ends a reader's copy early.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/FuzzCheck.h"
#include "servers/pop3/MPop3Responses.h"

namespace R = servers::pop3::MPop3Responses;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string body(reinterpret_cast<const char*>(data), size);
    mailservice::CHotmailMessage message;
    message.mLength = std::to_string(body.size());
    message.mBody = core::SpoolText::Store(body);
    // What goes on the wire: the response and the CR LF the frame adds.
    const std::string wire = R::BuildRETRResponse(message, "Tarnwick Gateway", "0.2.0") + "\r\n";
    fuzz::Check(wire.find("\r\n.\r\n") == wire.size() - 5, "the end line ends RETR, only it");
    (void)core::ReadAllPieces(*R::RETRResponsePieces(message, "Tarnwick Gateway", "0.2.0", 1 + body.size() % 7));
    return 0;
}
