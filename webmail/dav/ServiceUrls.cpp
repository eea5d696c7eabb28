#include "webmail/dav/ServiceUrls.h"

#include "webmail/dav/UrlCodec.h"

std::string ServiceUrls::account() const { return base + "/mail/" + UrlCodec::encodeSegment(user) + "/"; }

std::string ServiceUrls::folder(std::string_view name) const {
    return folderRoot() + UrlCodec::encodeSegment(name) + "/";
}

std::string ServiceUrls::message(std::string_view folderName, std::string_view id) const {
    return folder(folderName) + UrlCodec::encodeSegment(id);
}

ServiceTarget ServiceTarget::parse(std::string_view rawPath) {
    ServiceTarget target;
    const auto segments = UrlCodec::splitPath(rawPath);
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
