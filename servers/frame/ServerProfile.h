// The fixed texts, rules and choices by which the POP3 and the SMTP server differ inside the shared frame.
#pragma once

#include <string>
#include <string_view>

#include "core/IGatewayHost.h"
#include "core/ISocketControl.h"

namespace servers::frame {

struct ServerProfile {
    // A rule that reads a word or an argument from a received text; total: it yields the empty text where
    // the text cannot be read.
    using TextRule = std::string (*)(std::string_view text);
    // What the "CLIENT_REQUEST: " log entry carries after its prefix.
    enum class RequestEntry { kReceivedText, kCommandWord };

    // The host's socket control this server attaches to (WinsockPOP3 or WinsockSMTP).
    core::ISocketControl& (core::IGatewayHost::*socketControl)();
    // How a message to the user names this server: "POP3 server" or "SMTP server".
    std::string serverName;
    // ListenPort after creation: "110" or "25".
    std::string defaultListenPort;
    // Put before every error message: "-ERR " or "500 ".
    std::string errorPrefix;
    // Put before the command word of a request no table entry matches.
    std::string unrecognisedCommandText;
    // Whether send progress and completion are logged.
    bool logsSendEvents;
    // The creation label, "<class> Class_Initialize Event".
    std::string classInitializeLabel;
    // The server's command-word and argument rules (GetCommand, GetArgument).
    TextRule getCommand;
    TextRule getArgument;
    RequestEntry requestEntry;
};

}  // namespace servers::frame
