#include "webmail/MaildirFolder.h"

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kInfoSeparator = ":2,";

struct SplitName {
    std::string id;
    std::string flags;
};

SplitName splitName(const std::string& fileName) {
    const std::size_t info = fileName.find(kInfoSeparator);
    if (info == std::string::npos) return {fileName, ""};
    std::string flags = fileName.substr(info + kInfoSeparator.size());
    std::sort(flags.begin(), flags.end());
    return {fileName.substr(0, info), flags};
}

std::string hostPart() {
    char host[256] = {};
    if (::gethostname(host, sizeof host - 1) != 0 || host[0] == '\0') return "localhost";
    std::string out;
    for (const char* p = host; *p; ++p) {
        const char c = *p;
        const bool ok =
            (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.';
        out += ok ? c : '_';
    }
    return out;
}

void writeAll(int fd, std::string_view bytes, const fs::path& path) {
    while (!bytes.empty()) {
        const ssize_t n = ::write(fd, bytes.data(), bytes.size());
        if (n < 0) {
            if (errno == EINTR) continue;
            throw std::runtime_error("cannot write " + path.string() + ": " + std::strerror(errno));
        }
        bytes.remove_prefix(static_cast<std::size_t>(n));
    }
}

}  // namespace

MaildirFolder::MaildirFolder(fs::path dir) : dir_(std::move(dir)) {}

void MaildirFolder::create(const fs::path& dir) {
    for (const char* sub : {"cur", "new", "tmp"}) fs::create_directories(dir / sub);
}

bool MaildirFolder::isMaildir(const fs::path& dir) {
    std::error_code ec;
    return fs::is_directory(dir / "cur", ec) && fs::is_directory(dir / "new", ec) && fs::is_directory(dir / "tmp", ec);
}

std::string MaildirFolder::uniqueName() {
    static std::atomic<unsigned long> counter{0};
    static const std::string host = hostPart();
    timeval now{};
    ::gettimeofday(&now, nullptr);
    return std::to_string(now.tv_sec) + ".M" + std::to_string(now.tv_usec) + "P" + std::to_string(::getpid()) + "Q" +
           std::to_string(++counter) + "." + host;
}

bool MaildirFolder::isUsableName(std::string_view name) {
    if (name.empty() || name.front() == '.') return false;
    return std::all_of(name.begin(), name.end(), [](char c) { return c > 0x20 && c < 0x7F && c != '/'; });
}

std::vector<MaildirEntry> MaildirFolder::list() const {
    std::error_code ec;
    for (const auto& item : fs::directory_iterator(dir_ / "new", ec)) {
        const std::string name = item.path().filename().string();
        if (!isUsableName(name) || !item.is_regular_file(ec)) continue;
        const SplitName split = splitName(name);
        fs::rename(item.path(), dir_ / "cur" / (split.id + std::string(kInfoSeparator) + split.flags), ec);
    }
    struct Sortable {
        MaildirEntry entry;
        fs::file_time_type time;
    };
    std::vector<Sortable> found;
    for (const auto& item : fs::directory_iterator(dir_ / "cur", ec)) {
        const std::string name = item.path().filename().string();
        if (!isUsableName(name) || !item.is_regular_file(ec)) continue;
        SplitName split = splitName(name);
        found.push_back(
            {{std::move(split.id), item.path(), std::move(split.flags)}, fs::last_write_time(item.path(), ec)});
    }
    std::sort(found.begin(), found.end(), [](const Sortable& a, const Sortable& b) {
        return a.time != b.time ? a.time < b.time : a.entry.id < b.entry.id;
    });
    std::vector<MaildirEntry> entries;
    entries.reserve(found.size());
    for (auto& s : found) entries.push_back(std::move(s.entry));
    return entries;
}

std::optional<MaildirEntry> MaildirFolder::find(std::string_view id) const {
    if (!isUsableName(id)) return std::nullopt;
    std::error_code ec;
    // Nearly every message is unflagged or only seen: try those names before reading a whole folder, so that
    // fetching each message of a large folder does not read the folder once per message.
    const std::string wanted(id);
    if (wanted.find(kInfoSeparator) == std::string::npos) {
        for (const char* flags : {"", "S"}) {
            const fs::path likely = dir_ / "cur" / (wanted + std::string(kInfoSeparator) + flags);
            if (fs::is_regular_file(likely, ec)) return MaildirEntry{wanted, likely, flags};
        }
        if (const fs::path fresh = dir_ / "new" / wanted; fs::is_regular_file(fresh, ec)) {
            return MaildirEntry{wanted, fresh, ""};
        }
    }
    for (const char* sub : {"cur", "new"}) {
        for (const auto& item : fs::directory_iterator(dir_ / sub, ec)) {
            const std::string name = item.path().filename().string();
            if (!isUsableName(name)) continue;
            SplitName split = splitName(name);
            if (split.id == id) return MaildirEntry{std::move(split.id), item.path(), std::move(split.flags)};
        }
    }
    return std::nullopt;
}

bool MaildirFolder::setSeen(std::string_view id, bool seen) const {
    auto entry = find(id);
    if (!entry) return false;
    std::string flags = entry->flags;
    std::erase(flags, 'S');
    if (seen) flags += 'S';
    std::sort(flags.begin(), flags.end());
    const fs::path target = dir_ / "cur" / (entry->id + std::string(kInfoSeparator) + flags);
    if (target == entry->path) return true;
    std::error_code ec;
    fs::rename(entry->path, target, ec);
    return !ec;
}

bool MaildirFolder::moveTo(std::string_view id, const MaildirFolder& dest) const {
    auto entry = find(id);
    if (!entry) return false;
    std::error_code ec;
    if (fs::equivalent(dir_, dest.dir_, ec)) return true;
    if (dest.find(id)) return false;
    fs::rename(entry->path, dest.dir_ / "cur" / (entry->id + std::string(kInfoSeparator) + entry->flags), ec);
    return !ec;
}

std::string MaildirFolder::deliver(std::string_view bytes, bool intoNew, std::string_view flags) const {
    const std::string id = uniqueName();
    const fs::path temp = dir_ / "tmp" / id;
    const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) throw std::runtime_error("cannot create " + temp.string() + ": " + std::strerror(errno));
    try {
        writeAll(fd, bytes, temp);
        if (::fsync(fd) != 0) throw std::runtime_error("cannot sync " + temp.string());
    } catch (...) {
        ::close(fd);
        ::unlink(temp.c_str());
        throw;
    }
    ::close(fd);
    const fs::path target =
        intoNew ? dir_ / "new" / id : dir_ / "cur" / (id + std::string(kInfoSeparator) + std::string(flags));
    fs::rename(temp, target);
    return id;
}
