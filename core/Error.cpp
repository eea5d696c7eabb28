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
        case ErrorNumber::kDeviceIo:
            return "Device I/O error";
        case ErrorNumber::kDiskFull:
            return "Disk full";
        case ErrorNumber::kFileAccess:
            return "Path/File access error";
        case ErrorNumber::kObjectNotSet:
            return "Object variable or With block variable not set";
        case ErrorNumber::kDuplicateKey:
            return "This key is already associated with an element of this collection";
        case ErrorNumber::kPermissionDenied:
            return "Permission denied";
        case ErrorNumber::kAddressInUse:
            return "Address in use";
        case ErrorNumber::kWrongProtocolState:
            return "Wrong protocol or connection state for the requested transaction or request";
        case ErrorNumber::kHttpInvalidUrl:
            return "The URL is invalid";
        case ErrorNumber::kHttpUnrecognizedScheme:
            return "The URL does not use a recognized protocol";
        case ErrorNumber::kHttpNameNotResolved:
            return "The server name or address could not be resolved";
        case ErrorNumber::kHttpCannotConnect:
            return "A connection with the server could not be established";
        case ErrorNumber::kHttpConnectionAborted:
            return "The connection with the server was terminated abnormally";
        case ErrorNumber::kHttpHeaderNotFound:
            return "The requested header was not found";
        case ErrorNumber::kHttpTimedOut:
            return "The operation timed out";
        case ErrorNumber::kHttpReplyTooLarge:
            return "The server response exceeded the allowed size";
        case ErrorNumber::kHttpSecureFailure:
            return "A security error occurred";
        default:
            return {};
    }
}

void Raise(std::int32_t number, const std::string& source) { throw Error(number, source, StandardDescription(number)); }

}  // namespace core
