#include "platform/xml/XmlNode.h"

#include <utility>
#include <vector>

#include "core/Error.h"
#include "platform/xml/XmlNodeList.h"
#include "platform/xml/XmlTree.h"

namespace platform {
namespace {

// A pattern pugixml cannot compile is the caller's mistake, reported like any bad argument.
XmlNodeList Select(pugi::xml_node from, const std::string& pattern, const std::shared_ptr<XmlTree>& tree) {
    std::vector<void*> found;
    try {
        for (const pugi::xpath_node& n : from.select_nodes(pattern.c_str())) found.push_back(XmlTree::Raw(n.node()));
    } catch (const pugi::xpath_exception& e) {
        throw core::Error(core::ErrorNumber::kInvalidProcedureCall, {}, e.what());
    }
    return XmlTree::List(std::move(found), tree);
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

// The node `handle` refers to; raises error 91 when it refers to no node.
pugi::xml_node Checked(const XmlNode& handle) {
    const pugi::xml_node node = XmlTree::Node(handle);
    if (!node) core::Raise(core::ErrorNumber::kObjectNotSet);
    return node;
}

}  // namespace

XmlNode::XmlNode(void* node, std::shared_ptr<XmlTree> tree) : node_(node), tree_(std::move(tree)) {}

std::string XmlNode::nodeName() const { return Checked(*this).name(); }

XmlNodeList XmlNode::childNodes() const {
    std::vector<void*> children;
    for (pugi::xml_node c : Checked(*this).children()) children.push_back(XmlTree::Raw(c));
    return XmlTree::List(std::move(children), tree_);
}

std::string XmlNode::text() const {
    pugi::xml_node n = Checked(*this);
    if (n.type() == pugi::node_pcdata || n.type() == pugi::node_cdata) return n.value();
    std::string out;
    AppendText(n, out);
    return out;
}

void XmlNode::setText(const std::string& value) {
    pugi::xml_node n = Checked(*this);
    if (n.type() == pugi::node_pcdata || n.type() == pugi::node_cdata) {
        n.set_value(value.c_str());
        return;
    }
    while (n.first_child()) n.remove_child(n.first_child());
    n.append_child(pugi::node_pcdata).set_value(value.c_str());
}

XmlNodeList XmlNode::selectNodes(const std::string& pattern) const { return Select(Checked(*this), pattern, tree_); }

XmlNode XmlNode::appendChild(XmlNode& child) {
    pugi::xml_node parent = Checked(*this);
    pugi::xml_node moving = Checked(child);
    pugi::xml_node placed;
    if (child.tree_ == tree_) {
        placed = parent.append_move(moving);
    } else {
        // pugixml cannot move a node between documents: a new element lives in a document of its own until it
        // is appended, so it is copied in and the caller's handle follows the copy.
        placed = parent.append_copy(moving);
    }
    if (!placed) core::Raise(core::ErrorNumber::kInvalidProcedureCall);
    child = XmlTree::Handle(placed, tree_);
    return child;
}

}  // namespace platform
