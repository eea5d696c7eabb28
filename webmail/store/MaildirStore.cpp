#include "webmail/store/MaildirStore.h"

#include <stdexcept>

namespace webmail::store {

namespace fs = std::filesystem;

MaildirStore::MaildirStore(fs::path root) : root_(std::move(root)) {
    std::error_code ec;
    if (!fs::is_directory(root_, ec)) throw std::runtime_error("store folder " + root_.string() + " does not exist");
    passwords_ = PasswordFile::Load(root_ / PasswordFile::kFileName);
}

std::optional<std::string> MaildirStore::Password(const std::string& name) const { return passwords_.Password(name); }

std::optional<Account> MaildirStore::FindAccount(const std::string& name) const {
    if (!PasswordFile::IsValidName(name) || !passwords_.Password(name)) return std::nullopt;
    return Account(name, root_ / name);
}

Account MaildirStore::AddUser(const std::string& name, const std::string& password) {
    if (!PasswordFile::IsValidName(name)) {
        throw std::runtime_error("account name must be 1-64 of A-Z a-z 0-9 . _ - and not start with a dot");
    }
    if (!PasswordFile::IsValidPassword(password)) {
        throw std::runtime_error("password must be 1-256 bytes without line breaks");
    }
    std::lock_guard lock(mutex_);
    Account::Create(root_ / name);
    passwords_.Set(name, password);
    passwords_.Save(root_ / PasswordFile::kFileName);
    return Account(name, root_ / name);
}

}  // namespace webmail::store
