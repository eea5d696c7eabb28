#include "webmail/store/MessageHeader.h"

#include "core/Ascii.h"
#include "webmail/text/Lines.h"

namespace webmail::store {

MessageHeader MessageHeader::Parse(std::string_view raw) {
    MessageHeader header;
    while (!raw.empty()) {
        const std::string_view line = text::TakeLine(raw);
        if (line.empty()) break;
        if ((line.front() == ' ' || line.front() == '\t') && !header.fields_.empty()) {
            header.fields_.back().value += line;
            continue;
        }
        const std::size_t colon = line.find(':');
        if (colon == std::string_view::npos) continue;
        header.fields_.push_back(
            {std::string(text::TrimBlanks(line.substr(0, colon))), std::string(line.substr(colon + 1))});
    }
    return header;
}

std::string MessageHeader::Field(std::string_view name) const {
    for (const HeaderField& field : fields_) {
        if (core::Ascii::EqualsIgnoreCase(field.name, name)) return field.value;
    }
    return {};
}

}  // namespace webmail::store
