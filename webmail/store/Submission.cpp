#include "webmail/store/Submission.h"

#include <unordered_set>

#include "core/Ascii.h"
#include "webmail/text/Lines.h"
#include "webmail/text/MailAddress.h"

namespace webmail::store {

namespace {

bool StartsWithIgnoreCase(std::string_view text, std::string_view prefix) {
    return core::Ascii::EqualsIgnoreCase(text.substr(0, prefix.size()), prefix);
}

// Undoes SMTP transparency: a line that starts with "." lost its first dot on the wire's other side.
std::string Unstuff(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    bool lineStart = true;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (lineStart && text[i] == '.') {
            lineStart = false;
            continue;
        }
        out += text[i];
        lineStart = text[i] == '\n';
    }
    return out;
}

// The address of an envelope line's argument, or an empty optional with error set when the envelope rules
// refuse it.
std::optional<std::string> CheckedAddress(std::string_view argument, const char* what, std::string& error) {
    // A tab may separate words; any other control character (a bare CR, a NUL, ...) would let the text
    // pose as something else once written into a header line.
    for (char c : argument) {
        if (core::Ascii::IsControl(c) && c != '\t') {
            error = std::string("control character in the ") + what + " line";
            return std::nullopt;
        }
    }
    std::string address = text::EnvelopeAddress(argument);
    if (address.find('\t') != std::string::npos) {
        error = std::string("control character in the ") + what + " address";
        return std::nullopt;
    }
    if (address.size() > Submission::kMaxAddressLength) {
        error =
            std::string(what) + " address longer than " + std::to_string(Submission::kMaxAddressLength) + " characters";
        return std::nullopt;
    }
    return address;
}

}  // namespace

std::optional<Submission> Submission::Parse(std::string_view body, std::string& error) {
    Submission result;
    std::string_view rest = body;
    const std::string_view first = text::TakeLine(rest);
    if (!StartsWithIgnoreCase(first, "MAIL FROM:")) {
        error = "first line must be MAIL FROM:";
        return std::nullopt;
    }
    auto sender = CheckedAddress(first.substr(10), "MAIL FROM", error);
    if (!sender) return std::nullopt;
    result.sender = std::move(*sender);
    std::unordered_set<std::string> seen;
    while (true) {
        if (rest.empty()) {
            error = "no empty line after the envelope";
            return std::nullopt;
        }
        const std::string_view line = text::TakeLine(rest);
        if (line.empty()) break;
        if (!StartsWithIgnoreCase(line, "RCPT TO:")) {
            error = "envelope line is not RCPT TO:";
            return std::nullopt;
        }
        auto recipient = CheckedAddress(line.substr(8), "RCPT TO", error);
        if (!recipient) return std::nullopt;
        if (recipient->empty()) {
            error = "empty recipient";
            return std::nullopt;
        }
        if (!seen.insert(text::AddressKey(*recipient)).second) continue;
        if (result.recipients.size() == kMaxRecipients) {
            error = "more than " + std::to_string(kMaxRecipients) + " recipients";
            return std::nullopt;
        }
        result.recipients.push_back(std::move(*recipient));
    }
    if (result.recipients.empty()) {
        error = "no RCPT TO: line";
        return std::nullopt;
    }
    // Read the SMTP way: the text ends at its last line, which holds only "."; the line break before that
    // line ends the message's own last line and stays in the message.
    if (rest == ".\r\n" || rest == ".\n") return result;  // an empty message
    if (rest.ends_with("\n.\r\n")) {
        rest.remove_suffix(3);
    } else if (rest.ends_with("\n.\n")) {
        rest.remove_suffix(2);
    } else {
        error = "message does not end with a \".\" line";
        return std::nullopt;
    }
    result.message = Unstuff(rest);
    return result;
}

}  // namespace webmail::store
