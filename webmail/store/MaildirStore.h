// The store folder: the password file and one Maildir++ account tree per account name.
#pragma once

#include <filesystem>
#include <mutex>
#include <optional>
#include <string>

#include "webmail/store/Account.h"
#include "webmail/store/PasswordFile.h"

namespace webmail::store {

class MaildirStore {
public:
    // A store rooted at root; reads the password file (throws std::runtime_error when it is malformed).
    explicit MaildirStore(std::filesystem::path root);

    // The store's root folder.
    const std::filesystem::path& Root() const { return root_; }
    // The password of an account, if the account exists.
    std::optional<std::string> Password(const std::string& name) const;
    // The account of this name, if it exists in the password file.
    std::optional<Account> FindAccount(const std::string& name) const;
    // Creates (or re-creates missing parts of) an account tree and sets its password; saves the file.
    Account AddUser(const std::string& name, const std::string& password);

    // Serialises every change to the store between server threads.
    std::mutex& Mutex() const { return mutex_; }

private:
    std::filesystem::path root_;
    PasswordFile passwords_;
    mutable std::mutex mutex_;
};

}  // namespace webmail::store
