// A light handle on one node of an XmlDocument (or on no node at all); copies refer to the same node.
#pragma once

#include <memory>
#include <string>

namespace platform {

class XmlNodeList;
struct XmlTree;

class XmlNode {
public:
    // A handle on no node; every use of it raises error 91.
    XmlNode() = default;

    // Whether the handle refers to a node.
    bool exists() const { return node_ != nullptr; }
    // The node's name as written ("D:response"); empty for text nodes.
    std::string nodeName() const;
    // The node's children in document order, text nodes included.
    XmlNodeList childNodes() const;
    // The whole text content of the node and all its descendants, unchanged.
    std::string text() const;
    // Replaces all children by one text node holding `value`.
    void setText(const std::string& value);
    // Every node the XPath `pattern` finds from this node, in document order ("//" searches the whole document).
    XmlNodeList selectNodes(const std::string& pattern) const;
    // Appends `child` as the last child; a node made by createElement is moved in and `child` then refers to it
    // in its new place. Returns the appended node.
    XmlNode appendChild(XmlNode& child);

private:
    friend struct XmlTree;
    friend class XmlNodeList;
    XmlNode(void* node, std::shared_ptr<XmlTree> tree);

    void* node_ = nullptr;  // the parser's node, kept opaque so that callers need no parser header
    std::shared_ptr<XmlTree> tree_;  // keeps the document that holds the node alive
};

}  // namespace platform
