// An XML document: parse a text, walk it by position or by "//prefix:name" pattern, build elements, write
// it back as text. Prefixed names are matched as written; no namespace bindings are involved.
#pragma once

#include <memory>
#include <string>

#include "platform/xml/XmlNode.h"
#include "platform/xml/XmlNodeList.h"

namespace platform {

class XmlDocument {
public:
    // An empty document (no document element).
    XmlDocument();

    // Replaces the content by the parsed `text`; white-space-only text between elements forms no nodes.
    // Returns whether the text was well-formed; if not, the document is left empty.
    bool loadXML(const std::string& text);
    // Why the last loadXML failed, in the parser's words; empty after a successful parse.
    const std::string& parseErrorReason() const { return reason_; }
    // The root element; a handle on no node when the document is empty.
    XmlNode documentElement() const;
    // Every node the XPath `pattern` finds, in document order.
    XmlNodeList selectNodes(const std::string& pattern) const;
    // A new element named `name` (prefix included), not yet in the tree; appendChild puts it in place.
    XmlNode createElement(const std::string& name) const;
    // The document as one text: declaration kept as parsed, no indentation, single-quoted attributes,
    // empty elements written with start and end tag.
    std::string xml() const;

private:
    // Replaced by every loadXML, so that handles into the previous content stay valid for their holders.
    std::shared_ptr<XmlTree> tree_;
    std::string reason_;
};

}  // namespace platform
