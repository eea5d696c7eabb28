// What the XML layer's handles point into, and the conversions between them and pugixml's nodes. Private to
// platform/xml: the public headers name no pugixml type, so callers need no pugixml header.
#pragma once

#include <memory>
#include <utility>
#include <vector>

#include <pugixml.hpp>

#include "platform/xml/XmlNode.h"
#include "platform/xml/XmlNodeList.h"

namespace platform {

struct XmlTree {
    pugi::xml_document doc;

    // The pugixml node a handle refers to (a null node for a handle on no node).
    static pugi::xml_node Node(const XmlNode& handle) {
        return pugi::xml_node(static_cast<pugi::xml_node_struct*>(handle.node_));
    }
    // A handle on `node` of `tree`.
    static XmlNode Handle(pugi::xml_node node, std::shared_ptr<XmlTree> tree) {
        return XmlNode(Raw(node), std::move(tree));
    }
    // A list of handles on the nodes of `tree` that `nodes` holds (each as Raw gives it).
    static XmlNodeList List(std::vector<void*> nodes, std::shared_ptr<XmlTree> tree) {
        return XmlNodeList(std::move(nodes), std::move(tree));
    }
    // How a handle stores `node`.
    static void* Raw(pugi::xml_node node) { return node.internal_object(); }
};

}  // namespace platform
