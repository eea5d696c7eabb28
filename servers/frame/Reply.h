// What a command handler answers; the frame sends it with CR LF and logs it as the reply's kind says.
#pragma once

#include <string>
#include <utility>

#include "core/ITextPieces.h"

namespace servers::frame {

struct Reply {
    enum class Kind {
        kResponse,  // sent and logged "SERVER_RESPONSE: " + text
        kError,     // sent and logged through SendErrorResponse: the server's error prefix, then text
        kHeld,      // not logged, and not sent until the client waits for it (ServerFrame's held replies)
    };

    Kind kind = Kind::kResponse;
    std::string text;
    // Set for a response read in pieces (a retrieved message), in place of `text`: the socket and the log
    // each read it from the start.
    core::TextPiecesSource pieces;

    static Reply Response(std::string text) { return {Kind::kResponse, std::move(text), {}}; }
    // A response sent and logged like Response, read in pieces as the socket and the log take it.
    static Reply StreamedResponse(core::TextPiecesSource pieces) { return {Kind::kResponse, {}, std::move(pieces)}; }
    static Reply Error(std::string message) { return {Kind::kError, std::move(message), {}}; }
    static Reply Held(std::string text) { return {Kind::kHeld, std::move(text), {}}; }
};

}  // namespace servers::frame
