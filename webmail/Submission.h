// An outgoing message as posted to the send address: "MAIL FROM:" and "RCPT TO:" lines, an empty line,
// the message text with SMTP dot-stuffing, and the "." end line.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct Submission {
    std::string sender;                   // bare address of the MAIL FROM line (may be empty)
    std::vector<std::string> recipients;  // bare addresses of the RCPT TO lines, at least one
    std::string message;                  // message text, dot-stuffing undone, end line removed

    // Parses a posted body; on failure returns nullopt and sets error to a short reason.
    static std::optional<Submission> parse(std::string_view body, std::string& error);
    // The address inside "<...>" when present, else the first word; extra words (SIZE=...) are dropped.
    static std::string envelopeAddress(std::string_view text);
};
