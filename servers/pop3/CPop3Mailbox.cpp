#include "servers/pop3/CPop3Mailbox.h"

#include <string>
#include <utility>
#include <vector>

#include "core/Collection.h"
#include "core/Convert.h"
#include "core/Error.h"

namespace servers::pop3 {
namespace {

constexpr const char* kSource = "CPop3Server";

[[noreturn]] void Refuse(std::int32_t number, const char* description) {
    throw core::Error(number, kSource, description);
}

// Removes, by their mIndex keys, the records the service reports as read; the others keep their order.
void RemoveReadMessages(CPop3Mailbox::MessageList& messages) {
    std::vector<std::string> readKeys;
    for (const mailservice::MessagePtr& m : messages) {
        if (m->mRead != 0) readKeys.push_back(m->mIndex);
    }
    for (const std::string& key : readKeys) messages.Remove(key);
}

// The sum of the records' mLength, each read as a decimal number, rounded to a 32-bit integer.
std::int32_t SumMessageSizes(const CPop3Mailbox::MessageList& messages) {
    double total = 0;
    for (const mailservice::MessagePtr& m : messages) total += core::ToDouble(m->mLength);
    return core::RoundToInt32(total);
}

}  // namespace

void CPop3Mailbox::Load(mailservice::CHotmail& hotmail) {
    hotmail.Connect();
    const std::string inbox = hotmail.InboxURL();
    hotmail.ParseMailboxInfo(inbox);
    mailservice::MailCollectionPtr messages = hotmail.GetMailCollection();
    RemoveReadMessages(*messages);
    mailboxSize_ = SumMessageSizes(*messages);
    messageCount_ = core::RoundToInt16(messages->Count());
    // Loaded only once every step above has succeeded.
    messages_ = std::move(messages);
}

const CPop3Mailbox::MessageList& CPop3Mailbox::Messages() const {
    static const MessageList kNone;
    return messages_ ? *messages_ : kNone;
}

const mailservice::CHotmailMessage& CPop3Mailbox::Select(const std::string& argument) const {
    const MessageList& messages = Messages();
    return *messages.Item(ParseMessageNumber(argument, messages.Count()));
}

void CPop3Mailbox::Delete(mailservice::CHotmail& hotmail, const std::string& argument) const {
    const mailservice::IdCollectionPtr ids = core::MakeCollection<std::string>();
    ids->Add(Select(argument).mMessageID);
    hotmail.DeleteMail(ids, hotmail.InboxURL());
}

std::int16_t CPop3Mailbox::ParseMessageNumber(const std::string& argument, std::int32_t count) {
    if (argument.empty()) Refuse(core::ErrorNumber::kInvalidProcedureCall, "Message number required");
    std::int16_t n = 0;
    try {
        n = core::ToInt16(argument);
    } catch (const core::Error& e) {
        // A number too large for 16 bits names no message; anything else is not a number at all.
        if (e.Number() == core::ErrorNumber::kOverflow) {
            Refuse(core::ErrorNumber::kSubscriptOutOfRange, "No such message");
        }
        Refuse(core::ErrorNumber::kTypeMismatch, "Invalid message number");
    }
    if (n < 1 || n > count) Refuse(core::ErrorNumber::kSubscriptOutOfRange, "No such message");
    return n;
}

}  // namespace servers::pop3
