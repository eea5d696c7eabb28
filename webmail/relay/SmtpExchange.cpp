#include "webmail/relay/SmtpExchange.h"

#include "core/Ascii.h"

namespace webmail::relay {

namespace {

// The reply code of a reply line ("250-..." or "250 ..."), or 0.
int CodeOf(std::string_view line) {
    if (line.size() < 3) return 0;
    for (std::size_t i = 0; i < 3; ++i) {
        if (!core::Ascii::IsDigit(line[i])) return 0;
    }
    return (line[0] - '0') * 100 + (line[1] - '0') * 10 + (line[2] - '0');
}

// Whether a reply line is the last of its reply: "250 text" or a bare "250".
bool IsLastLine(std::string_view line) { return line.size() == 3 || (line.size() > 3 && line[3] != '-'); }

// The address of a "RCPT TO:<address> ..." command, or empty for any other command.
std::string_view RecipientOf(std::string_view command) {
    if (command.size() < 8 || !core::Ascii::EqualsIgnoreCase(command.substr(0, 8), "RCPT TO:")) return {};
    const std::size_t open = command.find('<');
    const std::size_t close = command.find('>', open);
    if (open == std::string_view::npos || close == std::string_view::npos) return {};
    return command.substr(open + 1, close - open - 1);
}

SmtpExchange::Verdict VerdictOf(int code) {
    if (code >= 200 && code < 400) return SmtpExchange::Verdict::Delivered;
    return code >= 500 && code < 600 ? SmtpExchange::Verdict::Permanent : SmtpExchange::Verdict::Temporary;
}

// Takes complete lines off the front of `pending`, calling take(line) for each (without CR LF).
template <typename Take>
void EachLine(std::string& pending, Take take) {
    std::size_t start = 0;
    for (std::size_t lf = pending.find('\n'); lf != std::string::npos; lf = pending.find('\n', start)) {
        std::string_view line(pending.data() + start, lf - start);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        take(line);
        start = lf + 1;
    }
    pending.erase(0, start);
}

}  // namespace

void SmtpExchange::Sent(std::string_view bytes) {
    sentPartial_ += bytes;
    EachLine(sentPartial_, [this](std::string_view line) { Command(std::string(line)); });
}

void SmtpExchange::Received(std::string_view bytes) {
    receivedPartial_ += bytes;
    EachLine(receivedPartial_, [this](std::string_view line) { ReplyLine(line); });
}

void SmtpExchange::Command(std::string line) {
    steps_.push_back({std::move(line), {}, 0});
}

void SmtpExchange::ReplyLine(std::string_view line) {
    if (!replyLines_.empty()) replyLines_ += ' ';
    // A reply ends up in logs, state files and report headers: printable ASCII only.
    for (char c : line) replyLines_ += c >= ' ' && c < 127 ? c : '?';
    if (!IsLastLine(line)) return;
    if (answered_ == steps_.size()) {
        // No command waits: the greeting, or the reply to the message text.
        steps_.push_back({steps_.empty() ? std::string() : std::string("."), {}, 0});
    }
    Step& step = steps_[answered_++];
    step.code = CodeOf(line);
    step.reply = std::move(replyLines_);
    replyLines_.clear();
}

std::string SmtpExchange::Transcript() const {
    std::string out;
    bool secret = false;  // an AUTH command and every answer to its 334 challenges carry credentials
    for (const Step& step : steps_) {
        if (!step.command.empty()) {
            const bool auth = step.command.size() >= 4 && core::Ascii::EqualsIgnoreCase(step.command.substr(0, 4), "AUTH");
            secret = auth || secret;
            if (step.command == ".") out += "> (the message text)\n";
            out += "> " + (secret ? std::string(auth ? "AUTH ..." : "...") : step.command) + "\n";
        }
        if (step.code != 0) out += "< " + step.reply + "\n";
        secret = secret && step.code == 334;
    }
    return out;
}

std::vector<SmtpExchange::Result> SmtpExchange::Judge(const std::vector<std::string>& recipients, bool transferOk,
                                                      const std::string& clientError) const {
    // Why the transfer failed as a whole: the last reply, when it refused something other than a recipient.
    const Step* failure = nullptr;
    for (auto it = steps_.rbegin(); it != steps_.rend(); ++it) {
        if (it->code == 0) continue;
        if (it->code >= 400 && RecipientOf(it->command).empty()) failure = &*it;
        break;
    }
    const Step* finalReply = nullptr;
    for (const Step& step : steps_) {
        if (step.command == ".") finalReply = &step;
    }
    std::vector<Result> results;
    results.reserve(recipients.size());
    for (const std::string& recipient : recipients) {
        Result result{recipient, Verdict::Temporary, {}};
        const Step* own = nullptr;
        for (const Step& step : steps_) {
            if (step.code != 0 && core::Ascii::EqualsIgnoreCase(RecipientOf(step.command), recipient)) own = &step;
        }
        if (own != nullptr && own->code >= 400) {
            result.verdict = VerdictOf(own->code);
            result.reply = own->reply;
        } else if (transferOk && own != nullptr) {
            result.verdict = Verdict::Delivered;
            result.reply = finalReply != nullptr ? finalReply->reply : own->reply;
        } else if (failure != nullptr) {
            result.verdict = VerdictOf(failure->code) == Verdict::Permanent ? Verdict::Permanent : Verdict::Temporary;
            result.reply = failure->reply;
        } else {
            result.verdict = Verdict::Temporary;
            result.reply = clientError.empty() ? "no reply from the mail server" : clientError;
        }
        results.push_back(std::move(result));
    }
    return results;
}

}  // namespace webmail::relay
