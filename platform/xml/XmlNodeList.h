// An ordered list of XmlNode handles (a node's children, or what a pattern found); positions from 0.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "platform/xml/XmlNode.h"

namespace platform {

class XmlNodeList {
public:
    XmlNodeList() = default;

    // Number of nodes in the list.
    std::int32_t length() const { return static_cast<std::int32_t>(nodes_.size()); }
    // The node at 0-based `index`; a position outside the list gives a handle on no node (using it raises 91).
    XmlNode item(std::int32_t index) const;

private:
    friend struct XmlTree;
    XmlNodeList(std::vector<void*> nodes, std::shared_ptr<XmlTree> tree);

    std::vector<void*> nodes_;  // the parser's nodes, opaque as in XmlNode
    std::shared_ptr<XmlTree> tree_;
};

}  // namespace platform
