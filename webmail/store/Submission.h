// An outgoing message as posted to the send address: "MAIL FROM:" and "RCPT TO:" lines, an empty line,
// the message text with SMTP dot-stuffing, and the "." end line.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace webmail::store {

// Envelope rules: an address (or the rest of its line) holding a control character is refused, and so is one
// longer than kMaxAddressLength. Recipients are kept once each, in first-seen order: two addresses are the
// same when their text::AddressKey is. More than kMaxRecipients different recipients are refused.
struct Submission {
    static constexpr std::size_t kMaxRecipients = 100;
    static constexpr std::size_t kMaxAddressLength = 254;

    std::string sender;                   // bare address of the MAIL FROM line (may be empty)
    std::vector<std::string> recipients;  // bare addresses of the RCPT TO lines, each once, at least one
    std::string message;                  // message text up to the "." end line, dot-stuffing undone

    // Parses a posted body; on failure returns nullopt and sets error to a short reason.
    static std::optional<Submission> Parse(std::string_view body, std::string& error);
};

}  // namespace webmail::store
