#include "webmail/store/MailDelivery.h"

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

MailDelivery::Result MailDelivery::deliver(const Account& sender, const Submission& submission,
                                           const Origin& origin) const {
    // Added lines end as the message's own first line does.
    const std::size_t lf = submission.message.find('\n');
    const std::string_view eol = lf != std::string::npos && (lf == 0 || submission.message[lf - 1] != '\r')
                                     ? std::string_view("\n")
                                     : std::string_view("\r\n");
    const auto onlyOne = [](const std::vector<std::string>& list) { return list.size() == 1 ? &list[0] : nullptr; };
    Result result;
    std::vector<std::string> remote;
    for (const std::string& recipient : submission.recipients) {
        if (auto account = localAccount(recipient)) {
            requireFolder(*account, Account::kInbox)
                .deliver(traceField(sender.name(), origin, &recipient, eol) + submission.message, true);
            result.local.push_back(account->name());
        } else {
            remote.push_back(recipient);
        }
    }
    if (!remote.empty()) {
        // The queued copy records its envelope in header lines, so whatever sends it on knows where to.
        std::string queued = traceField(sender.name(), origin, onlyOne(remote), eol);
        queued += "X-Tarnwick-Envelope-From: <" + submission.sender + ">" + std::string(eol);
        for (const std::string& r : remote) queued += "X-Tarnwick-Envelope-To: <" + r + ">" + std::string(eol);
        queued += submission.message;
        requireFolder(sender, Account::kOutbox).deliver(queued, true);
        result.queued = remote;
    }
    requireFolder(sender, Account::kSentItems)
        .deliver(traceField(sender.name(), origin, onlyOne(submission.recipients), eol) + submission.message, false,
                 "S");
    return result;
}

std::string MailDelivery::traceField(const std::string& account, const Origin& origin, const std::string* recipient,
                                     std::string_view eol) const {
    const std::string from = origin.clientAddress.empty() ? "unknown" : "[" + origin.clientAddress + "]";
    std::string field = "Received: from " + from + " (authenticated account " + account + ")";
    field += std::string(eol) + "\tby tarnwick-webmail (" + domain_ + ") with HTTP";
    field += std::string(eol) + "\t";
    if (recipient != nullptr) field += "for <" + *recipient + ">";
    field += "; " + rfc5322Date(origin.time) + std::string(eol);
    return field;
}

std::string MailDelivery::rfc5322Date(std::time_t time) {
    static constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    std::tm tm{};
    ::gmtime_r(&time, &tm);
    const auto two = [](int n) {
        return std::string(1, static_cast<char>('0' + n / 10)) + static_cast<char>('0' + n % 10);
    };
    return std::string(kDays[tm.tm_wday]) + ", " + std::to_string(tm.tm_mday) + " " + kMonths[tm.tm_mon] + " " +
           std::to_string(tm.tm_year + 1900) + " " + two(tm.tm_hour) + ":" + two(tm.tm_min) + ":" + two(tm.tm_sec) +
           " +0000";
}
