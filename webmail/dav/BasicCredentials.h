// The credentials of an "Authorization: Basic ..." header (RFC 7617), read strictly.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace webmail::dav {

struct BasicCredentials {
    std::string name;
    std::string password;

    // The scheme name of an Authorization value (its first word), as sent.
    static std::string_view Scheme(std::string_view authorization);
    // The credentials of an Authorization value; nullopt unless the scheme is "Basic" in any case, the rest
    // is one valid base64 token, and its text holds a colon and no control character (a NUL included:
    // "name:password\0junk" must not pass as "name:password").
    static std::optional<BasicCredentials> Parse(std::string_view authorization);
};

}  // namespace webmail::dav
