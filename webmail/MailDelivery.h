// Delivery of a posted message: a copy in the sender's Sent Items, each recipient of this domain gets it in
// their INBOX, every other recipient is queued in the sender's Outbox (nothing leaves the machine).
#pragma once

#include <string>
#include <vector>

#include "webmail/Account.h"
#include "webmail/MaildirStore.h"
#include "webmail/Submission.h"

class MailDelivery {
public:
    // What one delivery did.
    struct Result {
        std::vector<std::string> local;   // account names that received the message
        std::vector<std::string> queued;  // recipients queued in the Outbox
    };

    // Delivers for the given store and mail domain (compared without regard to case).
    MailDelivery(const MaildirStore& store, std::string domain);

    // Stores the message; throws std::runtime_error or std::filesystem::filesystem_error on a store failure.
    Result deliver(const Account& sender, const Submission& submission) const;
    // The account a recipient address names, when it is of this domain and exists.
    std::optional<Account> localAccount(const std::string& address) const;

private:
    const MaildirStore& store_;
    std::string domain_;
};
