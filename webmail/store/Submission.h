// An outgoing message as posted to the send address: "MAIL FROM:" and "RCPT TO:" lines, an empty line,
// the message text with SMTP dot-stuffing, and the "." end line.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

//
// Envelope rules: an address (or the rest of its line) holding a control character is refused, and so is one
// longer than kMaxAddressLength. Recipients are kept once each, in first-seen order: two addresses are the
// same when their local parts are equal byte for byte and their domains equal without regard to ASCII case
// (a local part may be case-sensitive; a domain never is). More than kMaxRecipients different recipients
// are refused.
struct Submission {
    static constexpr std::size_t kMaxRecipients = 100;
    static constexpr std::size_t kMaxAddressLength = 254;

    std::string sender;                   // bare address of the MAIL FROM line (may be empty)
    std::vector<std::string> recipients;  // bare addresses of the RCPT TO lines, each once, at least one
    std::string message;                  // message text, dot-stuffing undone, end line removed

    // Parses a posted body; on failure returns nullopt and sets error to a short reason.
    static std::optional<Submission> parse(std::string_view body, std::string& error);
    // The text two addresses share when they name the same mailbox: the domain lower-cased.
    static std::string addressKey(std::string_view address);
    // The address inside "<...>" when present, else the first word; extra words (SIZE=...) are dropped.
    static std::string envelopeAddress(std::string_view text);
};
