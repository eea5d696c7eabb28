// A message waiting in an Outbox: its envelope, read from the X-Tarnwick-Envelope-From and
// X-Tarnwick-Envelope-To header lines, and the text to relay (the file without those lines, every line
// ended by CR LF as SMTP wants it).
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace webmail::relay {

struct QueuedMessage {
    std::string sender;                   // envelope sender (may be empty: a null sender)
    std::vector<std::string> recipients;  // envelope recipients, at least one
    std::string text;                     // what goes to the smarthost

    // Reads a queued file; nullopt (error set to a short reason) when it carries no envelope.
    static std::optional<QueuedMessage> Parse(std::string_view file, std::string& error);
    // The header section of text, without the empty line that ends it.
    std::string_view Headers() const;
};

}  // namespace webmail::relay
