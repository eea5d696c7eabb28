#include "platform/xml/XmlNodeList.h"

#include <utility>

#include "platform/xml/XmlTree.h"

namespace platform {

XmlNodeList::XmlNodeList(std::vector<void*> nodes, std::shared_ptr<XmlTree> tree)
    : nodes_(std::move(nodes)), tree_(std::move(tree)) {}

XmlNode XmlNodeList::item(std::int32_t index) const {
    if (index < 0 || index >= length()) return XmlNode();
    return XmlNode(nodes_[static_cast<std::size_t>(index)], tree_);
}

}  // namespace platform
