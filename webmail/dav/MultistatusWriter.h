// Builds WebDAV multistatus reply documents with the service's fixed prefixes (D, h, hm, m).
#pragma once

#include <string>
#include <string_view>

#include <pugixml.hpp>

namespace webmail::dav {

class MultistatusWriter {
public:
    static constexpr const char* kDavNs = "DAV:";
    static constexpr const char* kHotmailNs = "http://schemas.tarnwick.invalid/hotmail/";  // prefix h
    static constexpr const char* kServiceNs = "urn:schemas:tarnwick:";                     // prefix hm
    static constexpr const char* kMailHeaderNs = "urn:schemas:mailheader:";                // prefix m
    static constexpr const char* kOkStatus = "HTTP/1.1 200 OK";

    // An empty D:multistatus declaring the four prefixes.
    MultistatusWriter();

    // Appends a D:response holding D:href, then D:propstat holding an empty D:prop and a D:status of kOkStatus;
    // returns the D:prop, for AddProp.
    pugi::xml_node AddResponse(std::string_view href);
    // Appends a D:response holding only D:href and D:status.
    void AddStatus(std::string_view href, std::string_view status);
    // Appends <name>text</name> to prop; an empty text gives an empty element (never a text node).
    static pugi::xml_node AddProp(pugi::xml_node prop, std::string_view name, std::string_view text);

    // The document as one line without white space between elements, with an XML declaration.
    std::string Text() const;

private:
    pugi::xml_document doc_;
    pugi::xml_node root_;
};

}  // namespace webmail::dav
