#include "webmail/dav/PropfindReplies.h"

#include <pugixml.hpp>

#include "webmail/store/Account.h"
#include "webmail/dav/EncodedWords.h"
#include "webmail/dav/MultistatusWriter.h"

namespace {

// Poll interval the log-in reply suggests, in minutes.
constexpr const char* kMaxPollMinutes = "1";

// The namespace URI bound to the node's prefix, found on the node or its ancestors.
std::string namespaceOf(pugi::xml_node node) {
    const std::string name = node.name();
    const std::size_t colon = name.find(':');
    const std::string attribute = colon == std::string::npos ? "xmlns" : "xmlns:" + name.substr(0, colon);
    for (pugi::xml_node n = node; n; n = n.parent()) {
        if (auto a = n.attribute(attribute.c_str())) return a.value();
    }
    return {};
}

std::string localName(pugi::xml_node node) {
    const std::string name = node.name();
    const std::size_t colon = name.find(':');
    return colon == std::string::npos ? name : name.substr(colon + 1);
}

pugi::xml_node addRequested(pugi::xml_node prop, const PropfindReplies::Requested& r, std::string_view text) {
    std::string prefix;
    if (r.ns == MultistatusWriter::kDavNs) prefix = "D:";
    if (r.ns == MultistatusWriter::kServiceNs) prefix = "hm:";
    if (r.ns == MultistatusWriter::kHotmailNs) prefix = "h:";
    if (r.ns == MultistatusWriter::kMailHeaderNs) prefix = "m:";
    auto element = MultistatusWriter::addProp(prop, prefix + r.local, text);
    if (prefix.empty()) element.append_attribute("xmlns") = r.ns.c_str();
    return element;
}

std::string folderValue(const PropfindReplies::Requested& r, const PropfindReplies::Folder& f) {
    if (r.ns == MultistatusWriter::kDavNs) {
        if (r.local == "isfolder") return "1";
        if (r.local == "displayname") return PropfindReplies::displayName(f.name);
        if (r.local == "hassubs") return "0";
        if (r.local == "nosubs") return "1";
        if (r.local == "visiblecount") return std::to_string(f.total);
    }
    if (r.ns == MultistatusWriter::kServiceNs) {
        if (r.local == "special") return PropfindReplies::special(f.name);
        if (r.local == "unreadcount") return std::to_string(f.unread);
    }
    return {};
}

}  // namespace

std::optional<std::vector<PropfindReplies::Requested>> PropfindReplies::requested(std::string_view body,
                                                                                  std::string& error) {
    if (body.find_first_not_of(" \t\r\n") == std::string_view::npos) return std::nullopt;
    pugi::xml_document doc;
    const auto parsed = doc.load_buffer(body.data(), body.size());
    if (!parsed) {
        error = std::string("Malformed XML: ") + parsed.description();
        return std::nullopt;
    }
    const auto root = doc.document_element();
    if (localName(root) != "propfind" || namespaceOf(root) != MultistatusWriter::kDavNs) {
        error = "Body is not a DAV:propfind document";
        return std::nullopt;
    }
    for (auto child : root.children()) {
        if (child.type() != pugi::node_element || namespaceOf(child) != MultistatusWriter::kDavNs) continue;
        if (localName(child) == "allprop") return std::nullopt;
        if (localName(child) != "prop") continue;
        std::vector<Requested> props;
        for (auto p : child.children()) {
            if (p.type() == pugi::node_element) props.push_back({namespaceOf(p), localName(p)});
        }
        return props;
    }
    error = "propfind names neither prop nor allprop";
    return std::nullopt;
}

std::vector<PropfindReplies::Requested> PropfindReplies::defaultFolderProps() {
    const std::string dav = MultistatusWriter::kDavNs;
    const std::string hm = MultistatusWriter::kServiceNs;
    return {{dav, "isfolder"}, {dav, "displayname"}, {hm, "special"},      {dav, "hassubs"},
            {dav, "nosubs"},   {hm, "unreadcount"},  {dav, "visiblecount"}};
}

std::string PropfindReplies::login(const ServiceUrls& urls) {
    MultistatusWriter writer;
    auto prop = writer.addResponse(urls.entry());
    // The client reads these by position, so their order is the contract.
    MultistatusWriter::addProp(prop, "h:adbar", urls.adbar());
    MultistatusWriter::addProp(prop, "hm:contacts", urls.contacts());
    MultistatusWriter::addProp(prop, "hm:inbox", urls.folder(Account::kInbox));
    MultistatusWriter::addProp(prop, "hm:sendmsg", urls.sendMessage());
    MultistatusWriter::addProp(prop, "hm:sentitems", urls.folder(Account::kSentItems));
    MultistatusWriter::addProp(prop, "hm:deleteditems", urls.folder(Account::kDeletedItems));
    MultistatusWriter::addProp(prop, "hm:msgfolderroot", urls.folderRoot());
    MultistatusWriter::addProp(prop, "h:maxpoll", kMaxPollMinutes);
    MultistatusWriter::addProp(prop, "h:sig", "");
    return writer.str();
}

std::string PropfindReplies::folders(const ServiceUrls& urls, const std::vector<Folder>& folders,
                                     const std::vector<Requested>& props) {
    MultistatusWriter writer;
    for (const Folder& f : folders) {
        auto prop = writer.addResponse(urls.folder(f.name));
        for (const Requested& r : props) addRequested(prop, r, folderValue(r, f));
    }
    return writer.str();
}

std::string PropfindReplies::messages(const ServiceUrls& urls, std::string_view folderName,
                                      const std::vector<Message>& messages) {
    MultistatusWriter writer;
    for (const Message& m : messages) {
        auto prop = writer.addResponse(urls.message(folderName, m.entry.id));
        MultistatusWriter::addProp(prop, "D:id", m.entry.id);
        MultistatusWriter::addProp(prop, "D:isfolder", "0");
        MultistatusWriter::addProp(prop, "hm:read", m.entry.seen() ? "1" : "0");
        MultistatusWriter::addProp(prop, "m:to", m.summary.to);
        MultistatusWriter::addProp(prop, "m:from", EncodedWords::encode(m.summary.from));
        MultistatusWriter::addProp(prop, "h:fromaddr", m.summary.fromAddress);
        MultistatusWriter::addProp(prop, "m:subject", m.summary.subject);
        MultistatusWriter::addProp(prop, "m:date", m.summary.date);
        MultistatusWriter::addProp(prop, "D:getcontentlength", std::to_string(m.size));
        MultistatusWriter::addProp(prop, "hm:hasattachment", m.summary.hasAttachment ? "1" : "0");
    }
    return writer.str();
}

std::string PropfindReplies::displayName(std::string_view folderName) {
    return folderName == Account::kInbox ? "Inbox" : std::string(folderName);
}

std::string PropfindReplies::special(std::string_view folderName) {
    if (folderName == Account::kInbox) return "inbox";
    if (folderName == Account::kSentItems) return "sentitems";
    if (folderName == Account::kDeletedItems) return "deleteditems";
    if (folderName == Account::kOutbox) return "outbox";
    return {};
}
