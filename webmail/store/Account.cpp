#include "webmail/store/Account.h"

#include <algorithm>

namespace webmail::store {

namespace fs = std::filesystem;

namespace {

// The folders every account is made with, in the order the folder list shows them after the inbox.
constexpr const char* kStandardFolders[] = {Account::kSentItems, Account::kDeletedItems, Account::kOutbox};

}  // namespace

Account::Account(std::string name, fs::path root) : name_(std::move(name)), root_(std::move(root)) {}

void Account::Create(const fs::path& root) {
    MaildirFolder::Create(root);
    for (const char* folder : kStandardFolders) {
        MaildirFolder::Create(root / (std::string(".") + folder));
    }
}

std::vector<std::string> Account::FolderNames() const {
    std::vector<std::string> names;
    if (MaildirFolder::IsMaildir(root_)) names.push_back(kInbox);
    std::vector<std::string> others;
    std::error_code ec;
    for (const auto& item : fs::directory_iterator(root_, ec)) {
        const std::string dirName = item.path().filename().string();
        if (dirName.size() < 2 || dirName[0] != '.' || dirName[1] == '.') continue;
        if (!item.is_directory(ec) || item.is_symlink(ec) || !MaildirFolder::IsMaildir(item.path())) continue;
        others.push_back(dirName.substr(1));
    }
    std::sort(others.begin(), others.end());
    for (const char* standard : kStandardFolders) {
        const auto it = std::find(others.begin(), others.end(), standard);
        if (it == others.end()) continue;
        names.push_back(*it);
        others.erase(it);
    }
    names.insert(names.end(), others.begin(), others.end());
    return names;
}

std::optional<MessageFile> Account::OpenInboxMessage(std::string_view id) const {
    return MaildirFolder(root_).OpenUsualWithoutLinks(id);
}

std::optional<MaildirFolder> Account::Folder(std::string_view name) const {
    if (name == kInbox) {
        if (!MaildirFolder::IsMaildir(root_)) return std::nullopt;
        return MaildirFolder(root_);
    }
    for (const std::string& known : FolderNames()) {
        if (known == name) return MaildirFolder(root_ / ("." + known));
    }
    return std::nullopt;
}

}  // namespace webmail::store
