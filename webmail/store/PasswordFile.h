// The store's password file: one "name:password" line per account.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace webmail::store {

class PasswordFile {
public:
    // File name inside the store folder.
    static constexpr const char* kFileName = "passwd";

    // True when the text can be an account name: 1 to 64 of [A-Za-z0-9._-], not starting with a dot,
    // and not the password file's own name.
    static bool IsValidName(std::string_view name);
    // True when the text can be a password: 1 to 256 bytes, no CR, LF or NUL.
    static bool IsValidPassword(std::string_view password);

    // Reads the file; a missing file gives no accounts. Throws std::runtime_error naming the bad line
    // (never its content) when a line is malformed.
    static PasswordFile Load(const std::filesystem::path& file);
    // Parses the file's text (same rules as Load).
    static PasswordFile Parse(std::string_view content);

    // The account's password, if the account exists.
    std::optional<std::string> Password(const std::string& name) const;
    // Adds or replaces an account; the caller has validated both texts.
    void Set(const std::string& name, const std::string& password);
    // The file's text: a comment line, then one "name:password" line per account in name order.
    std::string Serialize() const;
    // Writes the file by write-then-rename, readable by its owner only.
    void Save(const std::filesystem::path& file) const;

private:
    std::map<std::string, std::string> entries_;
};

}  // namespace webmail::store
