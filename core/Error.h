// The one error type of the gateway: a 32-bit number, a source and a description.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace core {

// Every error number the gateway's own layers raise or report: the one table, with StandardDescription below.
namespace ErrorNumber {
inline constexpr std::int32_t kInvalidProcedureCall = 5;
inline constexpr std::int32_t kOverflow = 6;
inline constexpr std::int32_t kOutOfMemory = 7;
inline constexpr std::int32_t kSubscriptOutOfRange = 9;
inline constexpr std::int32_t kTypeMismatch = 13;
inline constexpr std::int32_t kInternal = 51;
// Spool files (texts kept on disk).
inline constexpr std::int32_t kDeviceIo = 57;
inline constexpr std::int32_t kDiskFull = 61;
inline constexpr std::int32_t kFileAccess = 75;
inline constexpr std::int32_t kObjectNotSet = 91;
inline constexpr std::int32_t kDuplicateKey = 457;
// Socket layer. A broken connection is reported with the socket library's own description.
inline constexpr std::int32_t kPermissionDenied = 10013;
inline constexpr std::int32_t kAddressInUse = 10048;
inline constexpr std::int32_t kSocketConnectionAborted = 10053;
inline constexpr std::int32_t kSocketTimedOut = 10060;
inline constexpr std::int32_t kWrongProtocolState = 40006;
// HTTP request layer.
inline constexpr std::int32_t kHttpInvalidUrl = -2147012891;
inline constexpr std::int32_t kHttpUnrecognizedScheme = -2147012890;
inline constexpr std::int32_t kHttpNameNotResolved = -2147012889;
inline constexpr std::int32_t kHttpCannotConnect = -2147012867;
inline constexpr std::int32_t kHttpConnectionAborted = -2147012866;
inline constexpr std::int32_t kHttpHeaderNotFound = -2147012746;
inline constexpr std::int32_t kHttpTimedOut = -2147012894;
inline constexpr std::int32_t kHttpReplyTooLarge = -2147012712;
// HTTP request layer, https: the service's certificate was not accepted (no trusted CA, expired, another host
// name) or no secure connection could be agreed.
inline constexpr std::int32_t kHttpSecureFailure = -2147012721;
}  // namespace ErrorNumber

// An error as it travels through the program; thrown by value, caught by const reference.
class Error : public std::runtime_error {
public:
    Error(std::int32_t number, std::string source, std::string description);

    std::int32_t Number() const { return number_; }
    const std::string& Source() const { return source_; }
    const std::string& Description() const { return description_; }

private:
    std::int32_t number_;
    std::string source_;
    std::string description_;
};

// Raises error `number` with its standard description (see ErrorNumber) and the given source.
[[noreturn]] void Raise(std::int32_t number, const std::string& source = {});

// Standard description of one of the ErrorNumber values ("Type mismatch" for 13); empty if unknown.
std::string StandardDescription(std::int32_t number);

}  // namespace core
