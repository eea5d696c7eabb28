#include "webmail/dav/RequestParser.h"

#include <pugixml.hpp>

#include "core/Ascii.h"
#include "webmail/dav/MultistatusWriter.h"
#include "webmail/dav/UrlCodec.h"
#include "webmail/text/Lines.h"

namespace webmail::dav {
namespace {

using Kind = ServiceTarget::Kind;

std::string LocalName(pugi::xml_node node) {
    const std::string name = node.name();
    const std::size_t colon = name.find(':');
    return colon == std::string::npos ? name : name.substr(colon + 1);
}

// The namespace URI bound to the node's prefix, found on the node or its ancestors.
std::string NamespaceOf(pugi::xml_node node) {
    const std::string name = node.name();
    const std::size_t colon = name.find(':');
    const std::string attribute = colon == std::string::npos ? "xmlns" : "xmlns:" + name.substr(0, colon);
    for (pugi::xml_node n = node; n; n = n.parent()) {
        if (auto a = n.attribute(attribute.c_str())) return a.value();
    }
    return {};
}

// The root element of an XML body called `localName`, or an empty node with error set.
pugi::xml_node RootElement(pugi::xml_document& doc, std::string_view body, const char* localName, const char* refusal,
                           std::string& error) {
    if (!doc.load_buffer(body.data(), body.size())) {
        error = "Malformed XML";
        return {};
    }
    const pugi::xml_node root = doc.document_element();
    if (LocalName(root) != localName) {
        error = refusal;
        return {};
    }
    return root;
}

// The elements called `localName` among the children of `parent`.
std::vector<pugi::xml_node> Children(pugi::xml_node parent, std::string_view localName) {
    std::vector<pugi::xml_node> found;
    for (pugi::xml_node child : parent.children()) {
        if (LocalName(child) == localName) found.push_back(child);
    }
    return found;
}

// A D:href of a move request names a message by id; a full message address is taken by its last segment.
std::string IdOfHref(std::string_view href) {
    const std::string_view address = text::TrimWhite(href);
    const std::size_t slash = address.rfind('/');
    if (slash == std::string_view::npos) return std::string(address);
    return UrlCodec::Decode(address.substr(slash + 1)).value_or(std::string());
}

}  // namespace

ServiceTarget RequestParser::Target(std::string_view rawPath) {
    ServiceTarget target;
    const auto segments = UrlCodec::SplitPath(rawPath);
    if (!segments) return target;
    const auto& s = *segments;
    if (s.size() == 3 && s[0] == "svcs" && s[1] == "hotmail" && s[2] == "tarnwick.asp") {
        target.kind = Kind::Entry;
        return target;
    }
    if (s.size() < 3 || s[0] != "mail") return target;
    target.user = s[1];
    if (s.size() == 3) {
        if (s[2] == "folders") target.kind = Kind::FolderRoot;
        if (s[2] == "sendmsg") target.kind = Kind::SendMessage;
        if (s[2] == "contacts") target.kind = Kind::Contacts;
        if (s[2] == "adbar") target.kind = Kind::AdBar;
        return target;
    }
    if (s[2] != "folders" || s.size() > 5) return target;
    target.folder = s[3];
    if (s.size() == 4) {
        target.kind = Kind::Folder;
    } else {
        target.id = s[4];
        target.kind = Kind::Message;
    }
    return target;
}

std::optional<ServiceTarget> RequestParser::Destination(const std::optional<std::string>& header) {
    const std::string_view address = header ? text::TrimWhite(*header) : std::string_view();
    if (address.empty()) return std::nullopt;
    const auto path = UrlCodec::PathOfUrl(address);
    return path ? Target(*path) : ServiceTarget{};
}

std::string RequestParser::MediaType(const std::optional<std::string>& contentType) {
    if (!contentType) return {};
    std::string type = contentType->substr(0, contentType->find(';'));
    std::erase_if(type, core::Ascii::IsSpace);
    return core::Ascii::LowerCase(std::move(type));
}

std::optional<std::vector<RequestParser::Property>> RequestParser::RequestedProperties(std::string_view body,
                                                                                       std::string& error) {
    if (text::TrimWhite(body).empty()) return std::nullopt;
    pugi::xml_document doc;
    const auto parsed = doc.load_buffer(body.data(), body.size());
    if (!parsed) {
        error = std::string("Malformed XML: ") + parsed.description();
        return std::nullopt;
    }
    const auto root = doc.document_element();
    if (LocalName(root) != "propfind" || NamespaceOf(root) != MultistatusWriter::kDavNs) {
        error = "Body is not a DAV:propfind document";
        return std::nullopt;
    }
    for (auto child : root.children()) {
        if (child.type() != pugi::node_element || NamespaceOf(child) != MultistatusWriter::kDavNs) continue;
        if (LocalName(child) == "allprop") return std::nullopt;
        if (LocalName(child) != "prop") continue;
        std::vector<Property> properties;
        for (auto p : child.children()) {
            if (p.type() == pugi::node_element) properties.push_back({NamespaceOf(p), LocalName(p)});
        }
        return properties;
    }
    error = "propfind names neither prop nor allprop";
    return std::nullopt;
}

std::optional<bool> RequestParser::ReadFlag(std::string_view body, std::string& error) {
    pugi::xml_document doc;
    const pugi::xml_node root = RootElement(doc, body, "propertyupdate", "Body is not a propertyupdate", error);
    if (!root) return std::nullopt;
    std::optional<bool> read;
    for (pugi::xml_node action : root.children()) {
        const std::string verb = LocalName(action);
        if (verb != "set" && verb != "remove") continue;
        for (pugi::xml_node prop : Children(action, "prop")) {
            for (pugi::xml_node flag : Children(prop, "read")) {
                const std::string_view value = text::TrimWhite(flag.text().get());
                if (verb == "remove") {
                    read = false;
                } else if (value == "1" || value == "0") {
                    read = value == "1";
                } else {
                    error = "hm:read must be 0 or 1";
                    return std::nullopt;
                }
            }
        }
    }
    if (!read) error = "No hm:read property to update";
    return read;
}

std::optional<std::vector<std::string>> RequestParser::MovedIds(std::string_view body, std::string& error) {
    pugi::xml_document doc;
    const pugi::xml_node root = RootElement(doc, body, "move", "Body is not a move document", error);
    if (!root) return std::nullopt;
    std::vector<std::string> ids;
    for (pugi::xml_node target : Children(root, "target")) {
        for (pugi::xml_node href : Children(target, "href")) ids.push_back(IdOfHref(href.text().get()));
    }
    return ids;
}

}  // namespace webmail::dav
