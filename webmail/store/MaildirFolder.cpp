#include "webmail/store/MaildirFolder.h"

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <unordered_set>

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kInfoSeparator = ":2,";

struct SplitName {
    std::string id;
    std::string flags;
};

// Splits a file name into its unique part and its sorted flags.
SplitName splitName(const std::string& fileName) {
    const std::size_t info = fileName.find(kInfoSeparator);
    if (info == std::string::npos) return {fileName, ""};
    std::string flags = fileName.substr(info + kInfoSeparator.size());
    std::sort(flags.begin(), flags.end());
    return {fileName.substr(0, info), flags};
}

// The unique part of an entry's file name (its id may be a shortened form of it).
std::string uniquePart(const MaildirEntry& entry) { return splitName(entry.path.filename().string()).id; }

// Letters kept from a long unique part in front of its hash.
constexpr std::size_t kIdPrefixLength = MaildirFolder::kMaxIdLength - 17;

// Whether a unique part has the shape of an id made from a longer one: prefix, "~", 16 lower-case hex digits.
bool looksShortened(std::string_view unique) {
    if (unique.size() != MaildirFolder::kMaxIdLength || unique[kIdPrefixLength] != '~') return false;
    return std::all_of(unique.begin() + kIdPrefixLength + 1, unique.end(),
                       [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

// A directory entry that is what it says without following a link (d_type; lstat where the type is unknown).
bool isPlainFile(const fs::directory_entry& item) {
    std::error_code ec;
    return !item.is_symlink(ec) && item.is_regular_file(ec);
}
bool isPlainFile(const fs::path& path) {
    std::error_code ec;
    return fs::symlink_status(path, ec).type() == fs::file_type::regular;
}
bool isPlainDirectory(const fs::path& path) {
    std::error_code ec;
    return fs::symlink_status(path, ec).type() == fs::file_type::directory;
}

// The entry for a file of sub/ whose name can serve, when it is a plain file.
std::optional<MaildirEntry> entryOf(const fs::directory_entry& item) {
    const std::string name = item.path().filename().string();
    if (!MaildirFolder::isUsableName(name) || !isPlainFile(item)) return std::nullopt;
    SplitName split = splitName(name);
    return MaildirEntry{MaildirFolder::idOf(split.id), item.path(), std::move(split.flags)};
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
    return isPlainDirectory(dir) && isPlainDirectory(dir / "cur") && isPlainDirectory(dir / "new") &&
           isPlainDirectory(dir / "tmp");
}

std::string MaildirFolder::uniqueName() {
    static std::atomic<unsigned long> counter{0};
    static const std::string host = hostPart();
    timeval now{};
    ::gettimeofday(&now, nullptr);
    const std::string name = std::to_string(now.tv_sec) + ".M" + std::to_string(now.tv_usec) + "P" +
                             std::to_string(::getpid()) + "Q" + std::to_string(++counter) + ".";
    // The host name is cut to what keeps the name a served id of its own.
    return name + host.substr(0, kMaxIdLength > name.size() ? kMaxIdLength - name.size() : 0);
}

std::string MaildirFolder::idOf(std::string_view unique) {
    if (unique.size() <= kMaxIdLength && !looksShortened(unique)) return std::string(unique);
    std::uint64_t hash = 14695981039346656037ull;  // 64-bit FNV-1a
    for (char c : unique) hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ull;
    static constexpr char kHex[] = "0123456789abcdef";
    std::string id(unique.substr(0, kIdPrefixLength));
    id += '~';
    for (int shift = 60; shift >= 0; shift -= 4) id += kHex[(hash >> shift) & 0x0F];
    return id;
}

bool MaildirFolder::isUsableName(std::string_view name) {
    if (name.empty() || name.front() == '.') return false;
    return std::all_of(name.begin(), name.end(), [](char c) { return c > 0x20 && c < 0x7F && c != '/'; });
}

std::vector<MaildirEntry> MaildirFolder::list() const {
    std::error_code ec;
    if (!isMaildir(dir_)) return {};
    for (const auto& item : fs::directory_iterator(dir_ / "new", ec)) {
        const std::string name = item.path().filename().string();
        if (!isUsableName(name) || !isPlainFile(item)) continue;
        const SplitName split = splitName(name);
        fs::rename(item.path(), dir_ / "cur" / (split.id + std::string(kInfoSeparator) + split.flags), ec);
    }
    struct Sortable {
        MaildirEntry entry;
        fs::file_time_type time;
    };
    std::vector<Sortable> found;
    for (const auto& item : fs::directory_iterator(dir_ / "cur", ec)) {
        if (auto entry = entryOf(item)) found.push_back({std::move(*entry), fs::last_write_time(item.path(), ec)});
    }
    std::sort(found.begin(), found.end(), [](const Sortable& a, const Sortable& b) {
        if (a.time != b.time) return a.time < b.time;
        return a.entry.id != b.entry.id ? a.entry.id < b.entry.id : a.entry.path < b.entry.path;
    });
    // Two files can share an id (the same unique part with different flags, put there by hand): only the
    // first is listed, so that every id listed names one message.
    std::unordered_set<std::string> seen;
    std::vector<MaildirEntry> entries;
    entries.reserve(found.size());
    for (auto& s : found) {
        if (seen.insert(s.entry.id).second) entries.push_back(std::move(s.entry));
    }
    return entries;
}

std::optional<MaildirEntry> MaildirFolder::find(std::string_view id) const {
    if (!isUsableName(id) || id.size() > kMaxIdLength || !isMaildir(dir_)) return std::nullopt;
    std::error_code ec;
    // Nearly every message is unflagged or only seen and has its unique part as id: try those names before
    // reading a whole folder, so that fetching each message of a large folder does not read it once each.
    const std::string wanted(id);
    if (wanted.find(kInfoSeparator) == std::string::npos && idOf(wanted) == wanted) {
        for (const char* flags : {"", "S"}) {
            const fs::path likely = dir_ / "cur" / (wanted + std::string(kInfoSeparator) + flags);
            if (isPlainFile(likely)) return MaildirEntry{wanted, likely, flags};
        }
        if (const fs::path fresh = dir_ / "new" / wanted; isPlainFile(fresh)) return MaildirEntry{wanted, fresh, ""};
    }
    for (const char* sub : {"cur", "new"}) {
        for (const auto& item : fs::directory_iterator(dir_ / sub, ec)) {
            auto entry = entryOf(item);
            if (entry && entry->id == id) return entry;
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
    const fs::path target = dir_ / "cur" / (uniquePart(*entry) + std::string(kInfoSeparator) + flags);
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
    fs::rename(entry->path, dest.dir_ / "cur" / (uniquePart(*entry) + std::string(kInfoSeparator) + entry->flags), ec);
    return !ec;
}

std::string MaildirFolder::deliver(std::string_view bytes, bool intoNew, std::string_view flags) const {
    const std::string id = uniqueName();
    const fs::path temp = dir_ / "tmp" / id;
    if (!isMaildir(dir_)) throw std::runtime_error(dir_.string() + " is not a Maildir of its own (a link?)");
    // O_EXCL refuses a name that exists in any form, a symbolic link included.
    const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
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
