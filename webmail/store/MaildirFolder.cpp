#include "webmail/store/MaildirFolder.h"

#include <fcntl.h>
#include <stdio.h>  // renameat2
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <unordered_set>

#include "webmail/text/Hex.h"

namespace webmail::store {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kInfoSeparator = ":2,";

struct SplitName {
    std::string id;
    std::string flags;
};

// Splits a file name into its unique part and its sorted flags.
SplitName SplitFileName(const std::string& fileName) {
    const std::size_t info = fileName.find(kInfoSeparator);
    if (info == std::string::npos) return {fileName, ""};
    std::string flags = fileName.substr(info + kInfoSeparator.size());
    std::sort(flags.begin(), flags.end());
    return {fileName.substr(0, info), flags};
}

// The unique part of an entry's file name (its id may be a shortened form of it).
std::string UniquePart(const MaildirEntry& entry) { return SplitFileName(entry.path.filename().string()).id; }

// Letters kept from a long unique part in front of its hash.
constexpr std::size_t kIdPrefixLength = MaildirFolder::kMaxIdLength - 17;

// Whether a unique part has the shape of an id made from a longer one: prefix, "~", 16 lower-case hex digits.
bool LooksShortened(std::string_view unique) {
    if (unique.size() != MaildirFolder::kMaxIdLength || unique[kIdPrefixLength] != '~') return false;
    return std::all_of(unique.begin() + kIdPrefixLength + 1, unique.end(),
                       [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

// A directory entry that is what it says without following a link (d_type; lstat where the type is unknown).
bool IsPlainFile(const fs::directory_entry& item) {
    std::error_code ec;
    return !item.is_symlink(ec) && item.is_regular_file(ec);
}
bool IsPlainFile(const fs::path& path) {
    std::error_code ec;
    return fs::symlink_status(path, ec).type() == fs::file_type::regular;
}
bool IsPlainDirectory(const fs::path& path) {
    std::error_code ec;
    return fs::symlink_status(path, ec).type() == fs::file_type::directory;
}

// The entry for a file of sub/ whose name can serve, when it is a plain file.
std::optional<MaildirEntry> EntryOf(const fs::directory_entry& item) {
    const std::string name = item.path().filename().string();
    if (!MaildirFolder::IsUsableName(name) || !IsPlainFile(item)) return std::nullopt;
    SplitName split = SplitFileName(name);
    return MaildirEntry{MaildirFolder::IdOf(split.id), item.path(), std::move(split.flags)};
}

std::string HostPart() {
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

// Renames from to to unless to exists; errno when it fails (ENOENT: from has gone, EEXIST: to is taken). Another
// process may rename the same file at the same moment (Maildir's only lock is the rename): exactly one wins, and
// nothing is ever overwritten, so no message is lost or doubled.
int RenameNoReplace(const fs::path& from, const fs::path& to) {
    return ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0 ? 0 : errno;
}

// How often an operation looks its message up again after another process renamed it away first.
constexpr int kRenameAttempts = 4;

void WriteAll(int fd, std::string_view bytes, const fs::path& path) {
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

void MaildirFolder::Create(const fs::path& dir) {
    for (const char* sub : {"cur", "new", "tmp"}) fs::create_directories(dir / sub);
}

bool MaildirFolder::IsMaildir(const fs::path& dir) {
    return IsPlainDirectory(dir) && IsPlainDirectory(dir / "cur") && IsPlainDirectory(dir / "new") &&
           IsPlainDirectory(dir / "tmp");
}

std::string MaildirFolder::UniqueName() {
    static std::atomic<unsigned long> counter{0};
    static const std::string host = HostPart();
    timeval now{};
    ::gettimeofday(&now, nullptr);
    const std::string name = std::to_string(now.tv_sec) + ".M" + std::to_string(now.tv_usec) + "P" +
                             std::to_string(::getpid()) + "Q" + std::to_string(++counter) + ".";
    // The host name is cut to what keeps the name a served id of its own.
    return name + host.substr(0, kMaxIdLength > name.size() ? kMaxIdLength - name.size() : 0);
}

std::string MaildirFolder::IdOf(std::string_view unique) {
    if (unique.size() <= kMaxIdLength && !LooksShortened(unique)) return std::string(unique);
    std::uint64_t hash = 14695981039346656037ull;  // 64-bit FNV-1a
    for (char c : unique) hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ull;
    std::string id(unique.substr(0, kIdPrefixLength));
    id += '~';
    for (int shift = 56; shift >= 0; shift -= 8) text::AppendHex(id, static_cast<unsigned char>(hash >> shift), false);
    return id;
}

bool MaildirFolder::IsUsableName(std::string_view name) {
    if (name.empty() || name.front() == '.') return false;
    return std::all_of(name.begin(), name.end(), [](char c) { return c > 0x20 && c < 0x7F && c != '/'; });
}

std::vector<MaildirEntry> MaildirFolder::List() const {
    std::error_code ec;
    if (!IsMaildir(dir_)) return {};
    for (const auto& item : fs::directory_iterator(dir_ / "new", ec)) {
        const std::string name = item.path().filename().string();
        if (!IsUsableName(name) || !IsPlainFile(item)) continue;
        const SplitName split = SplitFileName(name);
        // Another lister may have moved it first; a name already in cur/ stays in new/ rather than replace it.
        RenameNoReplace(item.path(), dir_ / "cur" / (split.id + std::string(kInfoSeparator) + split.flags));
    }
    struct Sortable {
        MaildirEntry entry;
        fs::file_time_type time;
    };
    std::vector<Sortable> found;
    for (const auto& item : fs::directory_iterator(dir_ / "cur", ec)) {
        if (auto entry = EntryOf(item)) found.push_back({std::move(*entry), fs::last_write_time(item.path(), ec)});
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

std::optional<MaildirEntry> MaildirFolder::Find(std::string_view id) const {
    if (!IsUsableName(id) || id.size() > kMaxIdLength || !IsMaildir(dir_)) return std::nullopt;
    std::error_code ec;
    // Nearly every message is unflagged or only seen and has its unique part as id: try those names before
    // reading a whole folder, so that fetching each message of a large folder does not read it once each.
    const std::string wanted(id);
    if (wanted.find(kInfoSeparator) == std::string::npos && IdOf(wanted) == wanted) {
        // Another process may rename the file between two of these looks (a flag set, then cleared): a few
        // rounds of them cost a few stat calls and find it anyway.
        for (int round = 0; round < kRenameAttempts; ++round) {
            for (const char* flags : {"", "S"}) {
                const fs::path likely = dir_ / "cur" / (wanted + std::string(kInfoSeparator) + flags);
                if (IsPlainFile(likely)) return MaildirEntry{wanted, likely, flags};
            }
            if (const fs::path fresh = dir_ / "new" / wanted; IsPlainFile(fresh)) {
                return MaildirEntry{wanted, fresh, ""};
            }
        }
    }
    for (const char* sub : {"cur", "new"}) {
        for (const auto& item : fs::directory_iterator(dir_ / sub, ec)) {
            auto entry = EntryOf(item);
            if (entry && entry->id == id) return entry;
        }
    }
    return std::nullopt;
}

std::optional<MessageFile> MaildirFolder::Open(std::string_view id) const {
    if (auto file = OpenUsual(id, &MessageFile::Open)) return file;
    const auto entry = Find(id);
    return entry ? MessageFile::Open(entry->path) : std::nullopt;
}

std::optional<MessageFile> MaildirFolder::OpenUsualWithoutLinks(std::string_view id) const {
    return OpenUsual(id, &MessageFile::OpenWithoutLinks);
}

std::optional<MessageFile> MaildirFolder::OpenUsual(std::string_view id,
                                                    std::optional<MessageFile> (*open)(const char*)) const {
    if (!IsUsableName(id) || id.size() > kMaxIdLength) return std::nullopt;
    if (id.find(kInfoSeparator) != std::string_view::npos || IdOf(id) != id) return std::nullopt;
    // One buffer for the three usual names: DIR/cur/ID:2, and DIR/cur/ID:2,S, then DIR/new/ID. Each open
    // refuses a link in place of the file and anything but a regular file, as Find's looks do. Another process
    // may rename the file between two of them (a flag set, then cleared): a few rounds find it anyway.
    std::string name = dir_.native();
    const std::size_t sub = name.size() + 1;
    name.append("/cur/").append(id);
    const std::size_t unique = name.size();
    for (int round = 0; round < kRenameAttempts; ++round) {
        name.resize(unique);
        name.append(kInfoSeparator);
        if (auto file = open(name.c_str())) return file;
        name += 'S';
        if (auto file = open(name.c_str())) return file;
        name.resize(unique);
        name.replace(sub, 3, "new");
        if (auto file = open(name.c_str())) return file;
        name.replace(sub, 3, "cur");
    }
    return std::nullopt;
}

bool MaildirFolder::SetSeen(std::string_view id, bool seen) const {
    for (int attempt = 0; attempt < kRenameAttempts; ++attempt) {
        auto entry = Find(id);
        if (!entry) return false;
        std::string flags = entry->flags;
        std::erase(flags, 'S');
        if (seen) flags += 'S';
        std::sort(flags.begin(), flags.end());
        const fs::path target = dir_ / "cur" / (UniquePart(*entry) + std::string(kInfoSeparator) + flags);
        if (target == entry->path) return true;
        const int error = RenameNoReplace(entry->path, target);
        // ENOENT: a lister, a move or another flag change renamed it first; look again.
        if (error != ENOENT) return error == 0;
    }
    return false;
}

bool MaildirFolder::MoveTo(std::string_view id, const MaildirFolder& dest) const {
    std::error_code ec;
    if (fs::equivalent(dir_, dest.dir_, ec)) return Find(id).has_value();
    if (dest.Find(id)) return false;
    // Looked up and renamed at once: another process renaming it in between costs one more round.
    for (int attempt = 0; attempt < kRenameAttempts; ++attempt) {
        auto entry = Find(id);
        if (!entry) return false;
        const int error =
            RenameNoReplace(entry->path, dest.dir_ / "cur" / (UniquePart(*entry) + std::string(kInfoSeparator) + entry->flags));
        if (error != ENOENT) return error == 0;
    }
    return false;
}

std::string MaildirFolder::Deliver(std::string_view bytes, bool intoNew, std::string_view flags) const {
    std::string id = WriteTemp(bytes);
    try {
        PlaceTemp(id, intoNew, flags);
    } catch (...) {
        DropTemp(id);
        throw;
    }
    return id;
}

std::string MaildirFolder::WriteTemp(std::string_view bytes) const {
    std::string id = UniqueName();
    const fs::path temp = dir_ / "tmp" / id;
    if (!IsMaildir(dir_)) throw std::runtime_error(dir_.string() + " is not a Maildir of its own (a link?)");
    // O_EXCL refuses a name that exists in any form, a symbolic link included.
    const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) throw std::runtime_error("cannot create " + temp.string() + ": " + std::strerror(errno));
    try {
        WriteAll(fd, bytes, temp);
        if (::fsync(fd) != 0) throw std::runtime_error("cannot sync " + temp.string());
    } catch (...) {
        ::close(fd);
        ::unlink(temp.c_str());
        throw;
    }
    ::close(fd);
    return id;
}

fs::path MaildirFolder::PlaceTemp(const std::string& id, bool intoNew, std::string_view flags) const {
    fs::path target =
        intoNew ? dir_ / "new" / id : dir_ / "cur" / (id + std::string(kInfoSeparator) + std::string(flags));
    if (const int error = RenameNoReplace(dir_ / "tmp" / id, target); error != 0) {
        throw std::runtime_error("cannot deliver into " + target.string() + ": " + std::strerror(error));
    }
    return target;
}

void MaildirFolder::DropTemp(const std::string& id) const noexcept { ::unlink((dir_ / "tmp" / id).c_str()); }

}  // namespace webmail::store
