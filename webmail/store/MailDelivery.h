// Delivery of a posted message: a copy in the sender's Sent Items, each recipient of this domain gets it in
// their INBOX, every other recipient is queued in the sender's Outbox (the relay's queue). Every
// copy starts with a Received: trace field that names the authenticated account it came from.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "webmail/store/Account.h"
#include "webmail/store/MaildirStore.h"
#include "webmail/store/Submission.h"

namespace webmail::store {

class MailDelivery {
public:
    // What one delivery did.
    struct Result {
        std::vector<std::string> local;   // account names that received the message
        std::vector<std::string> queued;  // recipients queued in the Outbox
    };
    // Where and when a submission came in: the client's IP address (may be empty) and the time.
    struct Origin {
        std::string clientAddress;
        std::time_t time = 0;
    };

    // Delivers for the given store and mail domain (compared without regard to case).
    MailDelivery(const MaildirStore& store, std::string domain);

    // Stores the message; throws std::runtime_error or std::filesystem::filesystem_error on a store failure.
    Result Deliver(const Account& sender, const Submission& submission, const Origin& origin) const;
    // The Received: field for one copy posted by account, folded over three lines, each ended by eol:
    // "from [ADDRESS] (authenticated account NAME)", "by tarnwick-webmail (DOMAIN) with HTTP", then
    // "for <RECIPIENT>" when the copy is for one recipient, and the date (text::Rfc5322Date).
    std::string TraceField(const std::string& account, const Origin& origin, const std::string* recipient,
                           std::string_view eol) const;
    // The account a recipient address names, when it is of this domain and exists.
    std::optional<Account> LocalAccount(const std::string& address) const;

private:
    const MaildirStore& store_;
    std::string domain_;
};

}  // namespace webmail::store
