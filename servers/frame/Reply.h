// What a command handler answers; the frame sends it with CR LF and logs it as the reply's kind says.
#pragma once

#include <string>
#include <utility>

namespace servers::frame {

struct Reply {
    enum class Kind {
        kResponse,  // sent and logged "SERVER_RESPONSE: " + text
        kError,     // sent and logged through SendErrorResponse: the server's error prefix, then text
        kHeld,      // not logged, and not sent until the client waits for it (ServerFrame's held replies)
    };

    Kind kind = Kind::kResponse;
    std::string text;

    static Reply Response(std::string text) { return {Kind::kResponse, std::move(text)}; }
    static Reply Error(std::string message) { return {Kind::kError, std::move(message)}; }
    static Reply Held(std::string text) { return {Kind::kHeld, std::move(text)}; }
};

}  // namespace servers::frame
