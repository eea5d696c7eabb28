#include "platform/xml/XmlNode.h"

#include <utility>
#include <vector>

#include "core/Error.h"
#include "platform/xml/XmlNodeList.h"

namespace platform {
namespace {

// A pattern pugixml cannot compile is the caller's mistake, reported like any bad argument.
XmlNodeList Select(pugi::xml_node from, const std::string& pattern, const std::shared_ptr<pugi::xml_document>& owner) {
    std::vector<pugi::xml_node> found;
    try {
        for (const pugi::xpath_node& n : from.select_nodes(pattern.c_str())) found.push_back(n.node());
    } catch (const pugi::xpath_exception& e) {
        throw core::Error(core::ErrorNumber::kInvalidProcedureCall, {}, e.what());
    }
    return XmlNodeList(std::move(found), owner);
}

void AppendText(pugi::xml_node node, std::string& out) {
    for (pugi::xml_node c = node.first_child(); c; c = c.next_sibling()) {
        if (c.type() == pugi::node_pcdata || c.type() == pugi::node_cdata) {
            out += c.value();
        } else if (c.type() == pugi::node_element) {
            AppendText(c, out);
        }
    }
}

}  // namespace

XmlNode::XmlNode(pugi::xml_node node, std::shared_ptr<pugi::xml_document> owner)
    : node_(node), owner_(std::move(owner)) {}

pugi::xml_node XmlNode::Checked() const {
    if (!node_) core::Raise(core::ErrorNumber::kObjectNotSet);
    return node_;
}

std::string XmlNode::nodeName() const { return Checked().name(); }

XmlNodeList XmlNode::childNodes() const {
    std::vector<pugi::xml_node> children;
    for (pugi::xml_node c : Checked().children()) children.push_back(c);
    return XmlNodeList(std::move(children), owner_);
}

std::string XmlNode::text() const {
    pugi::xml_node n = Checked();
    if (n.type() == pugi::node_pcdata || n.type() == pugi::node_cdata) return n.value();
    std::string out;
    AppendText(n, out);
    return out;
}

void XmlNode::setText(const std::string& value) {
    pugi::xml_node n = Checked();
    if (n.type() == pugi::node_pcdata || n.type() == pugi::node_cdata) {
        n.set_value(value.c_str());
        return;
    }
    while (n.first_child()) n.remove_child(n.first_child());
    n.append_child(pugi::node_pcdata).set_value(value.c_str());
}

XmlNodeList XmlNode::selectNodes(const std::string& pattern) const { return Select(Checked(), pattern, owner_); }

XmlNode XmlNode::appendChild(XmlNode& child) {
    pugi::xml_node parent = Checked();
    pugi::xml_node moving = child.Checked();
    pugi::xml_node placed;
    if (child.owner_ == owner_) {
        placed = parent.append_move(moving);
    } else {
        // pugixml cannot move a node between documents: a new element lives in a document of its own until it
        // is appended, so it is copied in and the caller's handle follows the copy.
        placed = parent.append_copy(moving);
    }
    if (!placed) core::Raise(core::ErrorNumber::kInvalidProcedureCall);
    child = XmlNode(placed, owner_);
    return child;
}

}  // namespace platform
