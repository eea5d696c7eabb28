#include "webmail/dav/PropfindReplies.h"

#include <pugixml.hpp>

#include "webmail/dav/EncodedWords.h"
#include "webmail/dav/MultistatusWriter.h"
#include "webmail/store/Account.h"

namespace webmail::dav {
namespace {

using store::Account;
using Property = PropfindReplies::Property;

// Poll interval the log-in reply suggests, in minutes.
constexpr const char* kMaxPollMinutes = "1";

std::string DisplayName(std::string_view folderName) {
    return folderName == Account::kInbox ? "Inbox" : std::string(folderName);
}

std::string Special(std::string_view folderName) {
    if (folderName == Account::kInbox) return "inbox";
    if (folderName == Account::kSentItems) return "sentitems";
    if (folderName == Account::kDeletedItems) return "deleteditems";
    if (folderName == Account::kOutbox) return "outbox";
    return {};
}

pugi::xml_node AddRequested(pugi::xml_node prop, const Property& p, std::string_view text) {
    std::string prefix;
    if (p.ns == MultistatusWriter::kDavNs) prefix = "D:";
    if (p.ns == MultistatusWriter::kServiceNs) prefix = "hm:";
    if (p.ns == MultistatusWriter::kHotmailNs) prefix = "h:";
    if (p.ns == MultistatusWriter::kMailHeaderNs) prefix = "m:";
    auto element = MultistatusWriter::AddProp(prop, prefix + p.local, text);
    if (prefix.empty()) element.append_attribute("xmlns") = p.ns.c_str();
    return element;
}

std::string FolderValue(const Property& p, const PropfindReplies::Folder& f) {
    if (p.ns == MultistatusWriter::kDavNs) {
        if (p.local == "isfolder") return "1";
        if (p.local == "displayname") return DisplayName(f.name);
        if (p.local == "hassubs") return "0";
        if (p.local == "nosubs") return "1";
        if (p.local == "visiblecount") return std::to_string(f.total);
    }
    if (p.ns == MultistatusWriter::kServiceNs) {
        if (p.local == "special") return Special(f.name);
        if (p.local == "unreadcount") return std::to_string(f.unread);
    }
    return {};
}

}  // namespace

std::vector<Property> PropfindReplies::DefaultFolderProperties() {
    const std::string dav = MultistatusWriter::kDavNs;
    const std::string hm = MultistatusWriter::kServiceNs;
    return {{dav, "isfolder"}, {dav, "displayname"}, {hm, "special"},      {dav, "hassubs"},
            {dav, "nosubs"},   {hm, "unreadcount"},  {dav, "visiblecount"}};
}

std::string PropfindReplies::Login(const ServiceUrls& urls) {
    MultistatusWriter writer;
    auto prop = writer.AddResponse(urls.Entry());
    // The client reads these by position, so their order is the contract.
    MultistatusWriter::AddProp(prop, "h:adbar", urls.AdBar());
    MultistatusWriter::AddProp(prop, "hm:contacts", urls.Contacts());
    MultistatusWriter::AddProp(prop, "hm:inbox", urls.Folder(Account::kInbox));
    MultistatusWriter::AddProp(prop, "hm:sendmsg", urls.SendMessage());
    MultistatusWriter::AddProp(prop, "hm:sentitems", urls.Folder(Account::kSentItems));
    MultistatusWriter::AddProp(prop, "hm:deleteditems", urls.Folder(Account::kDeletedItems));
    MultistatusWriter::AddProp(prop, "hm:msgfolderroot", urls.FolderRoot());
    MultistatusWriter::AddProp(prop, "h:maxpoll", kMaxPollMinutes);
    MultistatusWriter::AddProp(prop, "h:sig", "");
    return writer.Text();
}

std::string PropfindReplies::Folders(const ServiceUrls& urls, const std::vector<Folder>& folders,
                                     const std::vector<Property>& properties) {
    MultistatusWriter writer;
    for (const Folder& f : folders) {
        auto prop = writer.AddResponse(urls.Folder(f.name));
        for (const Property& p : properties) AddRequested(prop, p, FolderValue(p, f));
    }
    return writer.Text();
}

std::string PropfindReplies::Messages(const ServiceUrls& urls, std::string_view folderName,
                                      const std::vector<ListedMessage>& messages) {
    MultistatusWriter writer;
    for (const ListedMessage& m : messages) {
        auto prop = writer.AddResponse(urls.Message(folderName, m.id));
        MultistatusWriter::AddProp(prop, "D:id", m.id);
        MultistatusWriter::AddProp(prop, "D:isfolder", "0");
        MultistatusWriter::AddProp(prop, "hm:read", m.read ? "1" : "0");
        MultistatusWriter::AddProp(prop, "m:to", m.to);
        MultistatusWriter::AddProp(prop, "m:from", EncodedWords::Encode(m.from));
        MultistatusWriter::AddProp(prop, "h:fromaddr", m.fromAddress);
        MultistatusWriter::AddProp(prop, "m:subject", m.subject);
        MultistatusWriter::AddProp(prop, "m:date", m.date);
        MultistatusWriter::AddProp(prop, "D:getcontentlength", std::to_string(m.size));
        MultistatusWriter::AddProp(prop, "hm:hasattachment", m.hasAttachment ? "1" : "0");
    }
    return writer.Text();
}

}  // namespace webmail::dav
