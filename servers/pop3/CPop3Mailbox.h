// The POP3 view of one connection's inbox: loaded once from the service client, only the unread messages,
// numbered from 1, with their count and total size. Deleting acts on the service at once and leaves the
// view as it was loaded, so numbers, counts and sizes stay the same for the whole connection.
#pragma once

#include <cstdint>
#include <string>

#include "mailservice/CHotmail.h"
#include "servers/pop3/MPop3Responses.h"

namespace servers::pop3 {

class CPop3Mailbox {
public:
    // The loaded records, in listing order: the service client's own list with the read messages removed.
    using MessageList = MPop3Responses::MessageList;

    // Whether the inbox has been loaded for this connection.
    bool MailboxLoaded() const { return messages_ != nullptr; }
    // Logs `hotmail` in with the credentials it holds and loads its inbox. The log-in's own result is not
    // examined: a refused log-in leaves no inbox address, and listing that fails. On an error the mailbox
    // stays unloaded, and the next Load tries again.
    void Load(mailservice::CHotmail& hotmail);

    // Number and total size of the loaded records (32767 records at most).
    std::int16_t MessageCount() const { return messageCount_; }
    std::int32_t MailboxSize() const { return mailboxSize_; }
    // The loaded records; an empty list before the first load.
    const MessageList& Messages() const;

    // The record that message number `argument` names (as ParseMessageNumber reads it).
    const mailservice::CHotmailMessage& Select(const std::string& argument) const;
    // Moves the message that `argument` names to the trash folder on the service at once.
    void Delete(mailservice::CHotmail& hotmail, const std::string& argument) const;

    // The 16-bit message number in `argument` (surrounding spaces accepted, halves to even), checked against
    // 1..`count`; otherwise raises 5 "Message number required", 13 "Invalid message number" or 9 "No such
    // message".
    static std::int16_t ParseMessageNumber(const std::string& argument, std::int32_t count);

private:
    mailservice::MailCollectionPtr messages_;
    std::int16_t messageCount_ = 0;
    std::int32_t mailboxSize_ = 0;
};

}  // namespace servers::pop3
