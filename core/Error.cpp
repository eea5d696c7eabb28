#include "core/Error.h"

namespace core {

Error::Error(std::int32_t number, std::string source, std::string description)
    : std::runtime_error(description),
      number_(number),
      source_(std::move(source)),
      description_(std::move(description)) {}

std::string StandardDescription(std::int32_t number) {
    switch (number) {
        case ErrorNumber::kInvalidProcedureCall:
            return "Invalid procedure call or argument";
        case ErrorNumber::kOverflow:
            return "Overflow";
        case ErrorNumber::kOutOfMemory:
            return "Out of memory";
        case ErrorNumber::kSubscriptOutOfRange:
            return "Subscript out of range";
        case ErrorNumber::kTypeMismatch:
            return "Type mismatch";
        case ErrorNumber::kInternal:
            return "Internal error";
        case ErrorNumber::kObjectNotSet:
            return "Object variable or With block variable not set";
        case ErrorNumber::kDuplicateKey:
            return "This key is already associated with an element of this collection";
        case ErrorNumber::kAddressInUse:
            return "Address in use";
        default:
            return {};
    }
}

void Raise(std::int32_t number, const std::string& source) { throw Error(number, source, StandardDescription(number)); }

}  // namespace core
