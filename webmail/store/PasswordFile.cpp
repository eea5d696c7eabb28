#include "webmail/store/PasswordFile.h"

#include <sys/stat.h>

#include <fstream>
#include <iterator>
#include <stdexcept>

#include "webmail/text/Lines.h"

namespace webmail::store {

bool PasswordFile::IsValidName(std::string_view name) {
    if (name.empty() || name.size() > 64 || name.front() == '.') return false;
    // The password file and its temporary copy live beside the account folders.
    if (name == kFileName || name == std::string(kFileName) + ".new") return false;
    for (unsigned char c : name) {
        const bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
                        c == '_' || c == '-';
        if (!ok) return false;
    }
    return true;
}

bool PasswordFile::IsValidPassword(std::string_view password) {
    return !password.empty() && password.size() <= 256 &&
           password.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

PasswordFile PasswordFile::Load(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        if (!std::filesystem::exists(file)) return {};
        throw std::runtime_error("cannot read " + file.string());
    }
    const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    try {
        return Parse(text);
    } catch (const std::runtime_error& e) {
        throw std::runtime_error(file.string() + ": " + e.what());
    }
}

PasswordFile PasswordFile::Parse(std::string_view content) {
    PasswordFile result;
    int lineNumber = 0;
    while (!content.empty()) {
        ++lineNumber;
        const std::string_view line = text::TakeLine(content);
        if (line.empty() || line.front() == '#') continue;
        const std::size_t colon = line.find(':');
        // The password may itself hold colons: only the first one separates.
        if (colon == std::string_view::npos || !IsValidName(line.substr(0, colon)) ||
            !IsValidPassword(line.substr(colon + 1))) {
            throw std::runtime_error("line " + std::to_string(lineNumber) +
                                     " is not \"name:password\" with a valid account name");
        }
        result.Set(std::string(line.substr(0, colon)), std::string(line.substr(colon + 1)));
    }
    return result;
}

std::optional<std::string> PasswordFile::Password(const std::string& name) const {
    const auto it = entries_.find(name);
    if (it == entries_.end()) return std::nullopt;
    return it->second;
}

void PasswordFile::Set(const std::string& name, const std::string& password) { entries_[name] = password; }

std::string PasswordFile::Serialize() const {
    std::string text = "# tarnwick-webmail accounts: one name:password line each\n";
    for (const auto& [name, password] : entries_) text.append(name).append(":").append(password).append("\n");
    return text;
}

void PasswordFile::Save(const std::filesystem::path& file) const {
    const std::filesystem::path temp = file.string() + ".new";
    {
        std::ofstream out(temp, std::ios::binary | std::ios::trunc);
        if (!out) throw std::runtime_error("cannot write " + temp.string());
        ::chmod(temp.c_str(), S_IRUSR | S_IWUSR);
        out << Serialize();
        out.flush();
        if (!out) throw std::runtime_error("cannot write " + temp.string());
    }
    std::filesystem::rename(temp, file);
}

}  // namespace webmail::store
