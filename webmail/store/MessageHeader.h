// The header fields of a message, each unfolded (continuation lines joined with their leading blank).
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace webmail::store {

class MessageHeader {
public:
    // Reads the fields of `raw` (a message, or only its header) up to the first empty line; lines that are
    // neither a field nor a continuation are skipped.
    static MessageHeader Parse(std::string_view raw);

    // The value of the first field called `name` (any case), after its colon as it stands; empty when
    // there is none.
    std::string Field(std::string_view name) const;

private:
    struct HeaderField {
        std::string name;
        std::string value;
    };
    std::vector<HeaderField> fields_;
};

}  // namespace webmail::store
