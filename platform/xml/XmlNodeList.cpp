#include "platform/xml/XmlNodeList.h"

#include <utility>

namespace platform {

XmlNodeList::XmlNodeList(std::vector<pugi::xml_node> nodes, std::shared_ptr<pugi::xml_document> owner)
    : nodes_(std::move(nodes)), owner_(std::move(owner)) {}

XmlNode XmlNodeList::item(std::int32_t index) const {
    if (index < 0 || index >= length()) return XmlNode();
    return XmlNode(nodes_[static_cast<std::size_t>(index)], owner_);
}

}  // namespace platform
