#include "platform/xml/XmlDocument.h"

#include <string>
#include <utility>

#include "core/Error.h"
#include "platform/xml/XmlTree.h"

namespace platform {
namespace {

// The declaration is kept so that a parsed template is written back with it.
constexpr unsigned kParseOptions = pugi::parse_default | pugi::parse_declaration;

// pugixml accepts several top-level elements or stray top-level text; a well-formed document has neither.
std::string TopLevelProblem(const pugi::xml_document& doc) {
    int elements = 0;
    for (pugi::xml_node c : doc.children()) {
        if (c.type() == pugi::node_element) ++elements;
        if (c.type() == pugi::node_pcdata || c.type() == pugi::node_cdata) return "Text outside the document element";
    }
    if (elements > 1) return "More than one document element";
    return {};
}

// Collects pugixml's output in a string: plain byte appends, no stream and so no stream locale.
class StringWriter final : public pugi::xml_writer {
public:
    void write(const void* data, size_t size) override { text.append(static_cast<const char*>(data), size); }
    std::string text;
};

}  // namespace

XmlDocument::XmlDocument() : tree_(std::make_shared<XmlTree>()) {}

bool XmlDocument::loadXML(const std::string& text) {
    // A fresh document each time: handles into the previous content stay valid for whoever still holds them.
    auto fresh = std::make_shared<XmlTree>();
    const pugi::xml_parse_result result =
        fresh->doc.load_buffer(text.data(), text.size(), kParseOptions, pugi::encoding_auto);
    reason_.clear();
    if (!result) {
        reason_ = result.description();
    } else {
        reason_ = TopLevelProblem(fresh->doc);
    }
    if (!reason_.empty()) fresh->doc.reset();
    tree_ = std::move(fresh);
    return reason_.empty();
}

XmlNode XmlDocument::documentElement() const { return XmlTree::Handle(tree_->doc.document_element(), tree_); }

XmlNodeList XmlDocument::selectNodes(const std::string& pattern) const {
    return XmlTree::Handle(tree_->doc, tree_).selectNodes(pattern);
}

XmlNode XmlDocument::createElement(const std::string& name) const {
    auto holder = std::make_shared<XmlTree>();
    pugi::xml_node element = holder->doc.append_child(name.c_str());
    if (!element) core::Raise(core::ErrorNumber::kOutOfMemory);
    return XmlTree::Handle(element, holder);
}

std::string XmlDocument::xml() const {
    StringWriter out;
    // format_no_declaration: write only a declaration the document holds, never invent one.
    tree_->doc.save(out, "",
               pugi::format_raw | pugi::format_no_declaration | pugi::format_attribute_single_quote |
                   pugi::format_no_empty_element_tags,
               pugi::encoding_utf8);
    return std::move(out.text);
}

}  // namespace platform
