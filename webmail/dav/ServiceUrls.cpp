#include "webmail/dav/ServiceUrls.h"

#include "webmail/dav/UrlCodec.h"

namespace webmail::dav {

std::string ServiceUrls::AccountPrefix() const { return base + "/mail/" + UrlCodec::EncodeSegment(user) + "/"; }

std::string ServiceUrls::Folder(std::string_view name) const {
    return FolderRoot() + UrlCodec::EncodeSegment(name) + "/";
}

std::string ServiceUrls::Message(std::string_view folderName, std::string_view id) const {
    return Folder(folderName) + UrlCodec::EncodeSegment(id);
}

}  // namespace webmail::dav
