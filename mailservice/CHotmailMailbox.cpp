// Mailbox listing.
#include <algorithm>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/Convert.h"
#include "core/Error.h"
#include "core/Trap.h"
#include "mailservice/CHotmail.h"
#include "mailservice/CHotmailImpl.h"
#include "platform/regional/RegionalDateFormat.h"

namespace mailservice {
namespace {

// The i-th element of each property name, counted over the whole reply: the service's listing is searched with
// "//", which reaches the whole document from any property list. One walk over every element of the reply (in
// document order) sorts them by name into all the columns at once, so a listing of many messages is not walked
// again for each name. Property list i must still exist for entry i to get a value.
class PropertyColumns {
public:
    PropertyColumns(const platform::XmlDocument& doc, const platform::XmlNodeList& propLists) : propLists_(propLists) {
        const platform::XmlNodeList elements = doc.selectNodes("//*");
        for (std::int32_t k = 0; k < elements.length(); ++k) {
            platform::XmlNode element = elements.item(k);
            columns_[element.nodeName()].push_back(std::move(element));
        }
    }

    // The i-th element named `name` as written in the reply ("D:id").
    std::string NthValue(std::int32_t i, const std::string& name) const {
        (void)propLists_.item(i).nodeName();  // raises when entry i has no property list
        const auto found = columns_.find(name);
        if (found == columns_.end() || static_cast<std::size_t>(i) >= found->second.size()) {
            core::Raise(core::ErrorNumber::kObjectNotSet);
        }
        return found->second[static_cast<std::size_t>(i)].text();
    }

private:
    const platform::XmlNodeList& propLists_;
    // Every element of the reply, by name, in document order.
    std::unordered_map<std::string, std::vector<platform::XmlNode>> columns_;
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
        const PropertyColumns columns(doc, propLists);
        // The listing's message texts go to one file of their own, which lives as long as its records.
        const std::shared_ptr<core::SpoolFile> spool = count > 0 ? core::SpoolFile::Create() : nullptr;

        // Every entry becomes a record; a step that fails leaves its field at the new record's value.
        for (std::int32_t i = 0; i < count; ++i) {
            auto msg = std::make_shared<CHotmailMessage>();
            core::SkipOnError([&] { msg->mURL = entries.item(i).childNodes().item(0).text(); });
            msg->mIndex = core::ToText(i + 1);
            core::SkipOnError([&] { msg->mMessageID = columns.NthValue(i, "D:id"); });
            core::SkipOnError([&] { msg->mSubject = columns.NthValue(i, "m:subject"); });
            core::SkipOnError([&] { msg->mTo = columns.NthValue(i, "m:to"); });
            core::SkipOnError([&] { msg->mFrom = columns.NthValue(i, "m:from"); });
            core::SkipOnError([&] { msg->mFromAddress = columns.NthValue(i, "h:fromaddr"); });
            // This entry's own date only: a missing one does not borrow the previous entry's.
            std::string dateText;
            core::SkipOnError([&] { dateText = columns.NthValue(i, "m:date"); });
            core::SkipOnError([&] { msg->mLength = columns.NthValue(i, "D:getcontentlength"); });
            core::SkipOnError([&] { msg->mRead = core::ToInt16(columns.NthValue(i, "hm:read")); });
            core::SkipOnError([&] { msg->mDate = platform::RegionalDateFormat::Format(dateText); });
            // The service's attachment flag, read like the read flag; nothing else in the gateway uses it.
            core::SkipOnError(
                [&] { msg->mHasAttachment = core::ToInt16(columns.NthValue(i, "hm:hasattachment")) != 0; });
            core::SkipOnError([&] { msg->mBody = GetMessage(msg->mURL, spool); });
            // A fetch that failed is listed with an empty text, but a text the spool could not keep fails the
            // listing: a message cut short by a full disk must never be served as whole.
            spool->CheckWritten();
            core::SkipOnError([&] { d_->MailCollection->Add(msg, msg->mIndex); });
        }
    });
}

}  // namespace mailservice
