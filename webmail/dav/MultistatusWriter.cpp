#include "webmail/dav/MultistatusWriter.h"

namespace webmail::dav {

MultistatusWriter::MultistatusWriter() {
    auto decl = doc_.append_child(pugi::node_declaration);
    decl.append_attribute("version") = "1.0";
    decl.append_attribute("encoding") = "UTF-8";
    root_ = doc_.append_child("D:multistatus");
    root_.append_attribute("xmlns:D") = kDavNs;
    root_.append_attribute("xmlns:h") = kHotmailNs;
    root_.append_attribute("xmlns:hm") = kServiceNs;
    root_.append_attribute("xmlns:m") = kMailHeaderNs;
}

pugi::xml_node MultistatusWriter::AddResponse(std::string_view href) {
    auto response = root_.append_child("D:response");
    AddProp(response, "D:href", href);
    auto propstat = response.append_child("D:propstat");
    auto prop = propstat.append_child("D:prop");
    AddProp(propstat, "D:status", kOkStatus);
    return prop;
}

void MultistatusWriter::AddStatus(std::string_view href, std::string_view status) {
    auto response = root_.append_child("D:response");
    AddProp(response, "D:href", href);
    AddProp(response, "D:status", status);
}

pugi::xml_node MultistatusWriter::AddProp(pugi::xml_node prop, std::string_view name, std::string_view text) {
    auto element = prop.append_child(std::string(name).c_str());
    if (!text.empty()) element.text().set(std::string(text).c_str());
    return element;
}

std::string MultistatusWriter::Text() const {
    struct StringWriter : pugi::xml_writer {
        std::string text;
        void write(const void* data, std::size_t size) override { text.append(static_cast<const char*>(data), size); }
    } out;
    doc_.save(out, "", pugi::format_raw, pugi::encoding_utf8);
    return std::move(out.text);
}

}  // namespace webmail::dav
