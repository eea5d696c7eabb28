#include "webmail/store/MailDelivery.h"

#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include "core/Ascii.h"
#include "webmail/text/MailDate.h"

namespace webmail::store {
namespace {

MaildirFolder RequireFolder(const Account& account, const char* name) {
    auto folder = account.Folder(name);
    if (!folder) {
        // A standard folder someone removed by hand: bring it back rather than lose the message.
        Account::Create(account.Root());
        folder = account.Folder(name);
    }
    if (!folder) throw std::runtime_error("folder " + std::string(name) + " of " + account.Name() + " is missing");
    return *folder;
}

// The copies of one delivery: each is written to its folder's tmp/ first and renamed into place only when all
// are written, so a failure on any copy (a full disk, say) leaves no copy behind and the poster can try again
// without making a duplicate.
class AllOrNothing {
public:
    AllOrNothing() = default;
    AllOrNothing(const AllOrNothing&) = delete;
    AllOrNothing& operator=(const AllOrNothing&) = delete;
    // Removes every copy still written or placed: the delivery did not complete.
    ~AllOrNothing() {
        for (const Copy& c : copies_) {
            if (c.placed.empty()) {
                c.folder.DropTemp(c.id);
            } else {
                ::unlink(c.placed.c_str());
            }
        }
    }

    void Write(MaildirFolder folder, const std::string& bytes, bool intoNew, std::string flags = {}) {
        const std::string id = folder.WriteTemp(bytes);
        copies_.push_back(Copy{std::move(folder), id, intoNew, std::move(flags), {}});
    }

    // Renames every copy into place; the delivery is complete once this returns.
    void Commit() {
        for (Copy& c : copies_) c.placed = c.folder.PlaceTemp(c.id, c.intoNew, c.flags);
        copies_.clear();
    }

private:
    struct Copy {
        MaildirFolder folder;
        std::string id;
        bool intoNew;
        std::string flags;
        std::filesystem::path placed;  // empty while the copy is in tmp/
    };
    std::vector<Copy> copies_;
};

}  // namespace

MailDelivery::MailDelivery(const MaildirStore& store, std::string domain)
    : store_(store), domain_(core::Ascii::LowerCase(std::move(domain))) {}

std::optional<Account> MailDelivery::LocalAccount(const std::string& address) const {
    const std::size_t at = address.rfind('@');
    if (at == std::string::npos || !core::Ascii::EqualsIgnoreCase(address.substr(at + 1), domain_)) return std::nullopt;
    return store_.FindAccount(address.substr(0, at));
}

MailDelivery::Result MailDelivery::Deliver(const Account& sender, const Submission& submission,
                                           const Origin& origin) const {
    // Added lines end as the message's own first line does.
    const std::size_t lf = submission.message.find('\n');
    const std::string_view eol = lf != std::string::npos && (lf == 0 || submission.message[lf - 1] != '\r')
                                     ? std::string_view("\n")
                                     : std::string_view("\r\n");
    const auto onlyOne = [](const std::vector<std::string>& list) { return list.size() == 1 ? &list[0] : nullptr; };
    Result result;
    AllOrNothing copies;
    std::vector<std::string> remote;
    for (const std::string& recipient : submission.recipients) {
        if (auto account = LocalAccount(recipient)) {
            copies.Write(RequireFolder(*account, Account::kInbox),
                         TraceField(sender.Name(), origin, &recipient, eol) + submission.message, true);
            result.local.push_back(account->Name());
        } else {
            remote.push_back(recipient);
        }
    }
    if (!remote.empty()) {
        // The queued copy records its envelope in header lines, so whatever sends it on knows where to.
        std::string queued = TraceField(sender.Name(), origin, onlyOne(remote), eol);
        queued += "X-Tarnwick-Envelope-From: <" + submission.sender + ">" + std::string(eol);
        for (const std::string& r : remote) queued += "X-Tarnwick-Envelope-To: <" + r + ">" + std::string(eol);
        queued += submission.message;
        copies.Write(RequireFolder(sender, Account::kOutbox), queued, true);
        result.queued = remote;
    }
    copies.Write(RequireFolder(sender, Account::kSentItems),
                 TraceField(sender.Name(), origin, onlyOne(submission.recipients), eol) + submission.message, false,
                 "S");
    copies.Commit();
    return result;
}

std::string MailDelivery::TraceField(const std::string& account, const Origin& origin, const std::string* recipient,
                                     std::string_view eol) const {
    // An address literal as mail uses it: [192.0.2.1], [IPv6:2001:db8::1].
    const bool v6 = origin.clientAddress.find(':') != std::string::npos;
    const std::string from =
        origin.clientAddress.empty() ? "unknown" : "[" + std::string(v6 ? "IPv6:" : "") + origin.clientAddress + "]";
    std::string field = "Received: from " + from + " (authenticated account " + account + ")";
    field += std::string(eol) + "\tby tarnwick-webmail (" + domain_ + ") with HTTP";
    field += std::string(eol) + "\t";
    if (recipient != nullptr) field += "for <" + *recipient + ">";
    field += "; " + text::Rfc5322Date(origin.time) + std::string(eol);
    return field;
}

}  // namespace webmail::store
