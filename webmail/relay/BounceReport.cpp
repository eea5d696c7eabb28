#include "webmail/relay/BounceReport.h"

#include "core/Ascii.h"
#include "webmail/text/MailDate.h"

namespace webmail::relay {

namespace {

constexpr std::string_view kEol = "\r\n";

// "x.y.z" at the front of text: class 2, 4 or 5, then 1-3 and 1-3 digits.
std::string EnhancedCode(std::string_view text) {
    std::size_t i = 0;
    const auto digits = [&](std::size_t most) {
        const std::size_t start = i;
        while (i < text.size() && i - start < most && core::Ascii::IsDigit(text[i])) ++i;
        return i > start;
    };
    if (text.empty() || (text[0] != '2' && text[0] != '4' && text[0] != '5')) return {};
    i = 1;
    if (i >= text.size() || text[i++] != '.' || !digits(3) || i >= text.size() || text[i++] != '.' || !digits(3)) {
        return {};
    }
    if (i < text.size() && !core::Ascii::IsSpace(text[i])) return {};
    return std::string(text.substr(0, i));
}

}  // namespace

std::string BounceReport::Status(const Failure& failure) {
    const std::string_view reply = failure.reply;
    const bool hasCode = reply.size() >= 4 && core::Ascii::IsDigit(reply[0]) && reply[3] == ' ';
    std::string code = hasCode ? EnhancedCode(reply.substr(4)) : std::string();
    if (!code.empty() && (!failure.timeLimit || code[0] != '2')) return code;
    return failure.timeLimit ? "4.4.7" : "5.0.0";
}

std::string BounceReport::Build() const {
    const std::string boundary = "=_tarnwick-report-" + id;
    const std::string eol(kEol);
    std::string out;
    out += "Date: " + text::Rfc5322Date(now) + eol;
    out += "From: Mail Delivery System <MAILER-DAEMON@" + domain + ">" + eol;
    out += "To: <" + to + ">" + eol;
    out += "Subject: Undelivered Mail Returned to Sender" + eol;
    out += "Message-ID: <" + id + "@" + domain + ">" + eol;
    out += "Auto-Submitted: auto-replied" + eol;
    out += "MIME-Version: 1.0" + eol;
    out += "Content-Type: multipart/report; report-type=delivery-status;" + eol;
    out += "\tboundary=\"" + boundary + "\"" + eol + eol;
    out += "This is a MIME-encapsulated delivery report." + eol + eol;

    out += "--" + boundary + eol;
    out += "Content-Type: text/plain; charset=us-ascii" + eol + eol;
    out += "This is the mail system of tarnwick-webmail at " + domain + "." + eol + eol;
    out += "Your message could not be delivered to the recipients below. The message's" + eol;
    out += "header is attached; a copy of the whole message is in your Sent Items." + eol + eol;
    for (const Failure& f : failures) {
        out += "<" + f.recipient + ">: ";
        if (f.timeLimit) {
            out += "not delivered within " + timeLimitText + "; last attempt: ";
        } else {
            out += "refused by " + remoteHost + ": ";
        }
        out += f.reply + eol;
    }
    out += eol;

    out += "--" + boundary + eol;
    out += "Content-Type: message/delivery-status" + eol + eol;
    out += "Reporting-MTA: dns; " + domain + eol;
    out += "Arrival-Date: " + text::Rfc5322Date(arrival) + eol;
    for (const Failure& f : failures) {
        out += eol;
        out += "Final-Recipient: rfc822; " + f.recipient + eol;
        out += "Action: failed" + eol;
        out += "Status: " + Status(f) + eol;
        out += "Remote-MTA: dns; " + remoteHost + eol;
        const bool smtpReply = f.reply.size() >= 3 && core::Ascii::IsDigit(f.reply[0]);
        out += (smtpReply ? "Diagnostic-Code: smtp; " : "X-Tarnwick-Diagnostic: ") + f.reply + eol;
        out += "Last-Attempt-Date: " + text::Rfc5322Date(now) + eol;
    }
    out += eol;

    out += "--" + boundary + eol;
    out += "Content-Type: text/rfc822-headers" + eol + eol;
    out += originalHeaders;
    if (!originalHeaders.empty() && !originalHeaders.ends_with(kEol)) out += eol;
    out += eol;
    out += "--" + boundary + "--" + eol;
    return out;
}

}  // namespace webmail::relay
