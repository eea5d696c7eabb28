// Mailbox listing.
#include <algorithm>
#include <map>
#include <string>

#include "core/Convert.h"
#include "core/Trap.h"
#include "mailservice/CHotmail.h"
#include "mailservice/CHotmailImpl.h"
#include "platform/regional/RegionalDateFormat.h"

namespace mailservice {
namespace {

// The i-th element of each property name, counted over the whole reply. "//" searches the whole document
// whatever node it starts from, so the search from property list i finds the same elements for every i:
// it runs once per name, on first use. Property list i must still exist for entry i to get a value, exactly
// as if the search had started from it.
class PropertyColumns {
public:
    explicit PropertyColumns(const platform::XmlNodeList& propLists) : propLists_(propLists) {}

    std::string NthValue(std::int32_t i, const std::string& pattern) {
        const platform::XmlNode propList = propLists_.item(i);
        (void)propList.nodeName();  // raises when entry i has no property list
        auto found = columns_.find(pattern);
        if (found == columns_.end()) found = columns_.emplace(pattern, propList.selectNodes(pattern)).first;
        return found->second.item(i).text();
    }

private:
    const platform::XmlNodeList& propLists_;
    std::map<std::string, platform::XmlNodeList> columns_;
};

}  // namespace

std::string CHotmail::GetMailInfo(const std::string& ukey) {
    return core::Trap("GetMailInfo Method", [&] { return d_->Propfind(ukey, d_->MailListRequest); });
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
        PropertyColumns columns(propLists);

        // Every entry becomes a record; a step that fails leaves its field at the new record's value.
        for (std::int32_t i = 0; i < count; ++i) {
            auto msg = std::make_shared<CHotmailMessage>();
            core::SkipOnError([&] { msg->mURL = entries.item(i).childNodes().item(0).text(); });
            msg->mIndex = core::ToText(i + 1);
            core::SkipOnError([&] { msg->mMessageID = columns.NthValue(i, "//D:id"); });
            core::SkipOnError([&] { msg->mSubject = columns.NthValue(i, "//m:subject"); });
            core::SkipOnError([&] { msg->mTo = columns.NthValue(i, "//m:to"); });
            core::SkipOnError([&] { msg->mFrom = columns.NthValue(i, "//m:from"); });
            core::SkipOnError([&] { msg->mFromAddress = columns.NthValue(i, "//h:fromaddr"); });
            // This entry's own date only: a missing one does not borrow the previous entry's.
            std::string dateText;
            core::SkipOnError([&] { dateText = columns.NthValue(i, "//m:date"); });
            core::SkipOnError([&] { msg->mLength = columns.NthValue(i, "//D:getcontentlength"); });
            core::SkipOnError([&] { msg->mRead = core::ToInt16(columns.NthValue(i, "//hm:read")); });
            core::SkipOnError([&] { msg->mDate = platform::RegionalDateFormat::Format(dateText); });
            // The service's attachment flag, read like the read flag; nothing else in the gateway uses it.
            core::SkipOnError(
                [&] { msg->mHasAttachment = core::ToInt16(columns.NthValue(i, "//hm:hasattachment")) != 0; });
            core::SkipOnError([&] { msg->mBody = GetMessage(msg->mURL); });
            core::SkipOnError([&] { d_->MailCollection->Add(msg, msg->mIndex); });
        }
    });
}

}  // namespace mailservice
