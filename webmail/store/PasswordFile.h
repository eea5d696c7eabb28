// The store's password file: one "name:password" line per account.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>

class PasswordFile {
public:
    // File name inside the store folder.
    static constexpr const char* kFileName = "passwd";

    // True when the text can be an account name: 1 to 64 of [A-Za-z0-9._-], not starting with a dot,
    // and not the password file's own name.
    static bool isValidName(std::string_view name);
    // True when the text can be a password: 1 to 256 bytes, no CR, LF or NUL.
    static bool isValidPassword(std::string_view password);

    // Reads the file; a missing file gives no accounts. Throws std::runtime_error naming the bad line
    // (never its content) when a line is malformed.
    static PasswordFile load(const std::filesystem::path& file);
    // Parses the file's text (same rules as load).
    static PasswordFile parse(std::string_view text);

    // The account's password, if the account exists.
    std::optional<std::string> password(const std::string& name) const;
    // Adds or replaces an account; the caller has validated both texts.
    void set(const std::string& name, const std::string& password);
    // The file's text: a comment line, then one "name:password" line per account in name order.
    std::string serialize() const;
    // Writes the file by write-then-rename, readable by its owner only.
    void save(const std::filesystem::path& file) const;
    // Account names in name order.
    std::map<std::string, std::string> const& entries() const { return entries_; }

private:
    std::map<std::string, std::string> entries_;
};
