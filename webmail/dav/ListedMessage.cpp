#include "webmail/dav/ListedMessage.h"

#include "core/Ascii.h"
#include "webmail/store/MessageHeader.h"
#include "webmail/text/Lines.h"
#include "webmail/text/MailAddress.h"
#include "webmail/text/MailDate.h"
#include "webmail/text/Utf8.h"

namespace webmail::dav {

ListedMessage ListedMessage::Read(const store::MaildirEntry& entry, const store::MessageFile& file) {
    const store::MessageHeader header = store::MessageHeader::Parse(file.Header());
    const store::MessageFile::Facts facts = file.ReadFacts();
    ListedMessage message;
    message.id = entry.id;
    message.read = entry.Seen();
    message.subject = text::CleanText(header.Field("Subject"));
    message.from = text::CleanText(header.Field("From"));
    message.to = text::CleanText(header.Field("To"));
    message.fromAddress = text::HeaderAddress(message.from);
    message.date = text::IsoDate(header.Field("Date")).value_or(text::IsoTime(file.Modified()));
    message.size = facts.servedSize;
    // A mixed multipart message carries attachments by definition; a part that declares itself one counts too.
    const std::string contentType = core::Ascii::LowerCase(std::string(text::TrimBlanks(header.Field("Content-Type"))));
    message.hasAttachment = contentType.starts_with("multipart/mixed") || facts.attachmentLine;
    return message;
}

}  // namespace webmail::dav
