#include "webmail/store/MaildirStore.h"

#include <stdexcept>

namespace fs = std::filesystem;

MaildirStore::MaildirStore(fs::path root) : root_(std::move(root)) {
    std::error_code ec;
    if (!fs::is_directory(root_, ec)) throw std::runtime_error("store folder " + root_.string() + " does not exist");
    passwords_ = PasswordFile::load(root_ / PasswordFile::kFileName);
}

std::optional<std::string> MaildirStore::password(const std::string& name) const { return passwords_.password(name); }

std::optional<Account> MaildirStore::account(const std::string& name) const {
    if (!PasswordFile::isValidName(name) || !passwords_.password(name)) return std::nullopt;
    return Account(name, root_ / name);
}

Account MaildirStore::addUser(const std::string& name, const std::string& password) {
    if (!PasswordFile::isValidName(name)) {
        throw std::runtime_error("account name must be 1-64 of A-Z a-z 0-9 . _ - and not start with a dot");
    }
    if (!PasswordFile::isValidPassword(password)) {
        throw std::runtime_error("password must be 1-256 bytes without line breaks");
    }
    std::lock_guard lock(mutex_);
    Account::create(root_ / name);
    passwords_.set(name, password);
    passwords_.save(root_ / PasswordFile::kFileName);
    return Account(name, root_ / name);
}
