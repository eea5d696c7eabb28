#include "webmail/relay/QueuedMessage.h"

#include "core/Ascii.h"

namespace webmail::relay {

namespace {

constexpr std::string_view kFromField = "X-Tarnwick-Envelope-From:";
constexpr std::string_view kToField = "X-Tarnwick-Envelope-To:";

bool StartsWithIgnoreCase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() && core::Ascii::EqualsIgnoreCase(text.substr(0, prefix.size()), prefix);
}

// The address between the angle brackets of a field's value (or the whole value, blanks trimmed).
std::string AddressOf(std::string_view value) {
    const std::size_t open = value.find('<');
    const std::size_t close = value.rfind('>');
    if (open != std::string_view::npos && close != std::string_view::npos && open < close) {
        return std::string(value.substr(open + 1, close - open - 1));
    }
    while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) value.remove_prefix(1);
    while (!value.empty() && core::Ascii::IsSpace(value.back())) value.remove_suffix(1);
    return std::string(value);
}

// Appends a line (without its line break) and CR LF.
void AppendLine(std::string& out, std::string_view line) {
    out += line;
    out += "\r\n";
}

}  // namespace

std::optional<QueuedMessage> QueuedMessage::Parse(std::string_view file, std::string& error) {
    QueuedMessage message;
    message.text.reserve(file.size() + file.size() / 32);
    bool inHeaders = true;
    bool haveSender = false;
    while (!file.empty()) {
        const std::size_t lf = file.find('\n');
        const bool lastLine = lf == std::string_view::npos;
        std::string_view line = file.substr(0, lastLine ? file.size() : lf);
        file.remove_prefix(lastLine ? file.size() : lf + 1);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (inHeaders && line.empty()) inHeaders = false;
        if (inHeaders && StartsWithIgnoreCase(line, kFromField)) {
            message.sender = AddressOf(line.substr(kFromField.size()));
            haveSender = true;
            continue;
        }
        if (inHeaders && StartsWithIgnoreCase(line, kToField)) {
            std::string recipient = AddressOf(line.substr(kToField.size()));
            if (!recipient.empty()) message.recipients.push_back(std::move(recipient));
            continue;
        }
        if (lastLine) {
            message.text += line;  // a last line without a line break stays without one
        } else {
            AppendLine(message.text, line);
        }
    }
    if (!haveSender || message.recipients.empty()) {
        error = "no envelope lines (X-Tarnwick-Envelope-From and -To)";
        return std::nullopt;
    }
    return message;
}

std::string_view QueuedMessage::Headers() const {
    const std::string_view all(text);
    if (all.starts_with("\r\n")) return {};
    const std::size_t end = all.find("\r\n\r\n");
    return end == std::string_view::npos ? all : all.substr(0, end + 2);
}

}  // namespace webmail::relay
