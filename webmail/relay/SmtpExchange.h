// One SMTP conversation as the client saw it (commands sent, replies received, fed from libcurl's debug
// callback), and what it means for each recipient: delivered, failed for now (4xx, no connection) or failed
// for good (5xx).
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace webmail::relay {

class SmtpExchange {
public:
    enum class Verdict { Delivered, Temporary, Permanent };
    struct Result {
        std::string recipient;
        Verdict verdict = Verdict::Temporary;
        std::string reply;  // the smarthost's reply that decided it (lines joined by spaces), or the error
    };
    // One command and the complete reply to it. The greeting answers the empty command, the reply after
    // the message text answers ".".
    struct Step {
        std::string command;
        std::string reply;
        int code = 0;
    };

    // Bytes the client sent as commands, and bytes of replies it received (any split).
    void Sent(std::string_view bytes);
    void Received(std::string_view bytes);

    const std::vector<Step>& Steps() const { return steps_; }
    // The conversation, one "> command" or "< reply" line each, ended by LF (credentials and the message
    // text left out).
    std::string Transcript() const;

    // The verdict for each recipient, given whether the transfer as a whole succeeded and, if not, the
    // client's own error text (used when no reply explains the failure).
    std::vector<Result> Judge(const std::vector<std::string>& recipients, bool transferOk,
                              const std::string& clientError) const;

private:
    void Command(std::string line);
    void ReplyLine(std::string_view line);

    std::vector<Step> steps_;
    std::size_t answered_ = 0;  // steps_[0, answered_) have their complete reply
    std::string sentPartial_;
    std::string receivedPartial_;
    std::string replyLines_;  // lines of a reply not yet complete
};

}  // namespace webmail::relay
