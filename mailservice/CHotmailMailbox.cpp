// Mailbox listing.
#include <algorithm>

#include "core/Convert.h"
#include "core/Trap.h"
#include "mailservice/CHotmail.h"
#include "mailservice/CHotmailImpl.h"
#include "mailservice/RegionalDateFormat.h"

namespace mailservice {
namespace {

// The value of the i-th element named by `pattern`, counted over the whole reply: "//" searches the whole
// document whatever node it starts from, so property list i only has to exist.
std::string NthValue(const platform::XmlNodeList& propLists, std::int32_t i, const char* pattern) {
    return propLists.item(i).selectNodes(pattern).item(i).text();
}

}  // namespace

std::string CHotmail::GetMailInfo(const std::string& ukey) {
    return core::Trap("GetMailInfo Method", [&] {
        d_->HttpRequest.Open("PROPFIND", ukey, false);
        d_->HttpRequest.Send(d_->MailListRequest);
        return d_->ReadListingReply();
    });
}

void CHotmail::ParseMailboxInfo(const std::string& ukey) {
    core::Trap("ParseMailboxInfo Method", [&] {
        // A new collection: whoever holds the previous listing keeps it unchanged.
        d_->MailCollection = core::MakeCollection<MessagePtr>();
        platform::XmlDocument doc;
        // Not examined: a reply that is not XML gives no entries and so an empty listing.
        (void)doc.loadXML(GetMailInfo(ukey));
        const platform::XmlNodeList entries = doc.selectNodes("//D:response");
        const platform::XmlNodeList propLists = doc.selectNodes("//D:prop");
        const std::int32_t count = std::min<std::int32_t>(entries.length(), kMaxListEntries);

        // Every entry becomes a record; a step that fails leaves its field at the new record's value.
        for (std::int32_t i = 0; i < count; ++i) {
            auto msg = std::make_shared<CHotmailMessage>();
            core::SkipOnError([&] { msg->mURL = entries.item(i).childNodes().item(0).text(); });
            msg->mIndex = core::ToText(i + 1);
            core::SkipOnError([&] { msg->mMessageID = NthValue(propLists, i, "//D:id"); });
            core::SkipOnError([&] { msg->mSubject = NthValue(propLists, i, "//m:subject"); });
            core::SkipOnError([&] { msg->mTo = NthValue(propLists, i, "//m:to"); });
            core::SkipOnError([&] { msg->mFrom = NthValue(propLists, i, "//m:from"); });
            core::SkipOnError([&] { msg->mFromAddress = NthValue(propLists, i, "//h:fromaddr"); });
            // This entry's own date only: a missing one does not borrow the previous entry's.
            std::string dateText;
            core::SkipOnError([&] { dateText = NthValue(propLists, i, "//m:date"); });
            core::SkipOnError([&] { msg->mLength = NthValue(propLists, i, "//D:getcontentlength"); });
            core::SkipOnError([&] { msg->mRead = core::ToInt16(NthValue(propLists, i, "//hm:read")); });
            core::SkipOnError([&] { msg->mDate = RegionalDateFormat::Format(dateText); });
            // The service's attachment flag, read like the read flag; nothing else in the gateway uses it.
            core::SkipOnError(
                [&] { msg->mHasAttachment = core::ToInt16(NthValue(propLists, i, "//hm:hasattachment")) != 0; });
            core::SkipOnError([&] { msg->mBody = GetMessage(msg->mURL); });
            core::SkipOnError([&] { d_->MailCollection->Add(msg, msg->mIndex); });
        }
    });
}

}  // namespace mailservice
