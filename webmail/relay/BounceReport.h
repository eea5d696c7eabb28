// The delivery report a sender gets for mail that could not be relayed: a multipart/report message
// (report-type=delivery-status) with a readable explanation, a message/delivery-status part naming each
// recipient, its status and the smarthost's reply, and the original message's header section.
#pragma once

#include <ctime>
#include <string>
#include <string_view>
#include <vector>

namespace webmail::relay {

struct BounceReport {
    struct Failure {
        std::string recipient;
        std::string reply;       // the smarthost's reply, or why no reply came
        bool timeLimit = false;  // given up after the time limit rather than refused for good
    };

    std::string domain;      // the service's mail domain (the reporting system)
    std::string remoteHost;  // the smarthost
    std::string to;          // the address the report goes to
    std::string id;          // unique text for the Message-ID and the MIME boundary: [A-Za-z0-9._-]
    std::time_t arrival = 0;
    std::time_t now = 0;
    std::string timeLimitText;  // how long mail is tried, as the user set it ("5 days")
    std::vector<Failure> failures;
    std::string_view originalHeaders;  // CR LF line ends

    // The status code of a failure: the reply's enhanced code ("5.1.1") when it has one, else 5.0.0 for a
    // refusal and 4.4.7 (delivery time expired) for the time limit.
    static std::string Status(const Failure& failure);
    // The whole message, CR LF line ends.
    std::string Build() const;
};

}  // namespace webmail::relay
