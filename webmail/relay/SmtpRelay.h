// Hands messages to a smarthost with libcurl's SMTP client: smtp:// (STARTTLS when the smarthost offers it,
// required when credentials are given) or smtps://. One connection is kept for the messages that follow.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "webmail/relay/SmtpExchange.h"

namespace webmail::relay {

class SmtpRelay {
public:
    struct Options {
        std::string url;       // smtp://HOST[:PORT] or smtps://HOST[:PORT]
        std::string heloName;  // the name given in EHLO
        std::string user;      // empty: no authentication
        std::string password;
        std::string caFile;  // empty: the system's certificate authorities
    };
    struct Attempt {
        std::vector<SmtpExchange::Result> results;  // one per recipient, in the order given
        std::string transcript;                      // SmtpExchange::Transcript()
        bool reached = false;                        // the smarthost said anything at all
    };

    explicit SmtpRelay(Options options);
    ~SmtpRelay();
    SmtpRelay(const SmtpRelay&) = delete;
    SmtpRelay& operator=(const SmtpRelay&) = delete;

    // Whether a text can serve as --relay: an smtp:// or smtps:// URL with a host; error says why not.
    static bool IsRelayUrl(const std::string& url, std::string& error);
    // Reads "USER:PASSWORD" from the first line of a file that others cannot read; throws
    // std::runtime_error with a message fit for the user.
    static void ReadCredentials(const std::filesystem::path& file, std::string& user, std::string& password);

    // The host named by the URL, for delivery reports.
    std::string Host() const;
    // Sends one message (text with CR LF line ends) to every recipient in one transaction.
    Attempt Send(const std::string& sender, const std::vector<std::string>& recipients, std::string_view text);

private:
    Options options_;
    void* curl_ = nullptr;  // CURL*, kept between messages for its connection
};

}  // namespace webmail::relay
