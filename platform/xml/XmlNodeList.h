// An ordered list of XmlNode handles (a node's children, or what a pattern found); positions from 0.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <pugixml.hpp>

#include "platform/xml/XmlNode.h"

namespace platform {

class XmlNodeList {
public:
    XmlNodeList() = default;
    XmlNodeList(std::vector<pugi::xml_node> nodes, std::shared_ptr<pugi::xml_document> owner);

    // Number of nodes in the list.
    std::int32_t length() const { return static_cast<std::int32_t>(nodes_.size()); }
    // The node at 0-based `index`; a position outside the list gives a handle on no node (using it raises 91).
    XmlNode item(std::int32_t index) const;

private:
    std::vector<pugi::xml_node> nodes_;
    std::shared_ptr<pugi::xml_document> owner_;
};

}  // namespace platform
