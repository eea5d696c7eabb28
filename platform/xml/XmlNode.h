// A light handle on one node of an XmlDocument (or on no node at all); copies refer to the same node.
#pragma once

#include <memory>
#include <string>

#include <pugixml.hpp>

namespace platform {

class XmlNodeList;

class XmlNode {
public:
    // A handle on no node; every use of it raises error 91.
    XmlNode() = default;
    // A handle on `node`, keeping the document that holds it alive.
    XmlNode(pugi::xml_node node, std::shared_ptr<pugi::xml_document> owner);

    // Whether the handle refers to a node.
    bool exists() const { return static_cast<bool>(node_); }
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

    // The underlying node, for the layer's own use.
    pugi::xml_node raw() const { return node_; }
    const std::shared_ptr<pugi::xml_document>& owner() const { return owner_; }

private:
    // Raises error 91 when the handle refers to no node.
    pugi::xml_node Checked() const;

    pugi::xml_node node_;
    std::shared_ptr<pugi::xml_document> owner_;
};

}  // namespace platform
