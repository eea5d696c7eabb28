#include "webmail/MailDelivery.h"

#include <stdexcept>

#include "core/Ascii.h"

namespace {

MaildirFolder requireFolder(const Account& account, const char* name) {
    auto folder = account.folder(name);
    if (!folder) {
        // A standard folder someone removed by hand: bring it back rather than lose the message.
        Account::create(account.root());
        folder = account.folder(name);
    }
    if (!folder) throw std::runtime_error("folder " + std::string(name) + " of " + account.name() + " is missing");
    return *folder;
}

}  // namespace

MailDelivery::MailDelivery(const MaildirStore& store, std::string domain)
    : store_(store), domain_(core::Ascii::LowerCase(std::move(domain))) {}

std::optional<Account> MailDelivery::localAccount(const std::string& address) const {
    const std::size_t at = address.rfind('@');
    if (at == std::string::npos || !core::Ascii::EqualsIgnoreCase(address.substr(at + 1), domain_)) return std::nullopt;
    return store_.account(address.substr(0, at));
}

MailDelivery::Result MailDelivery::deliver(const Account& sender, const Submission& submission) const {
    Result result;
    std::vector<std::string> remote;
    for (const std::string& recipient : submission.recipients) {
        if (auto account = localAccount(recipient)) {
            requireFolder(*account, Account::kInbox).deliver(submission.message, true);
            result.local.push_back(account->name());
        } else {
            remote.push_back(recipient);
        }
    }
    if (!remote.empty()) {
        // The queued copy records its envelope in two header lines, so whatever sends it on knows where to.
        std::string queued = "X-Tarnwick-Envelope-From: <" + submission.sender + ">\r\n";
        for (const std::string& r : remote) queued += "X-Tarnwick-Envelope-To: <" + r + ">\r\n";
        queued += submission.message;
        requireFolder(sender, Account::kOutbox).deliver(queued, true);
        result.queued = remote;
    }
    requireFolder(sender, Account::kSentItems).deliver(submission.message, false, "S");
    return result;
}
