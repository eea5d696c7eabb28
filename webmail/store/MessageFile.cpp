#include "webmail/store/MessageFile.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <string_view>
#include <unordered_map>

#include "core/Ascii.h"

namespace webmail::store {

namespace {

// Bytes read at a time when a whole file is scanned.
constexpr std::size_t kScanBlock = std::size_t{64} * 1024;
// Bytes read at a time while looking for the end of a header: most headers fit in one read.
constexpr std::size_t kHeaderBlock = 4096;
// Files whose facts are kept; the cache starts afresh when it would grow beyond.
constexpr std::size_t kCacheEntries = 100000;

// What identifies one version of a file's content: it survives the renames that flag or move a message.
struct FileKey {
    dev_t device;
    ino_t inode;
    off_t size;
    time_t seconds;
    long nanoseconds;
    bool operator==(const FileKey&) const = default;
};

struct FileKeyHash {
    std::size_t operator()(const FileKey& k) const {
        std::size_t h = std::hash<ino_t>()(k.inode);
        for (const std::size_t part : {static_cast<std::size_t>(k.device), static_cast<std::size_t>(k.size),
                                       static_cast<std::size_t>(k.seconds), static_cast<std::size_t>(k.nanoseconds)}) {
            h = h * 1000003u ^ part;
        }
        return h;
    }
};

class FactsCache {
public:
    std::optional<MessageFile::Facts> Find(const FileKey& key) {
        std::lock_guard lock(mutex_);
        const auto it = facts_.find(key);
        if (it == facts_.end()) return std::nullopt;
        return it->second;
    }
    void Store(const FileKey& key, const MessageFile::Facts& facts) {
        std::lock_guard lock(mutex_);
        if (facts_.size() >= kCacheEntries) facts_.clear();
        facts_[key] = facts;
    }

private:
    std::mutex mutex_;
    std::unordered_map<FileKey, MessageFile::Facts, FileKeyHash> facts_;
};

FactsCache& FactsCacheInstance() {
    static FactsCache instance;
    return instance;
}

// Reads up to `length` bytes at `offset`; -1 on an error.
long ReadAt(int fd, char* into, std::size_t length, std::uint64_t offset) {
    while (true) {
        const ssize_t n = ::pread(fd, into, length, static_cast<off_t>(offset));
        if (n >= 0 || errno != EINTR) return static_cast<long>(n);
    }
}

// Walks `data` as the served text sees it: text(piece) for each run of bytes without an LF, then lf(bare)
// for the LF that ends it, where bare says it lacks its CR. lastCr carries the byte before `data`.
template <typename Text, typename Lf>
void WalkLines(std::string_view data, bool& lastCr, Text text, Lf lf) {
    std::size_t i = 0;
    while (i < data.size()) {
        const std::size_t found = data.find('\n', i);
        const std::size_t end = found == std::string_view::npos ? data.size() : found;
        text(data.substr(i, end - i));
        if (end > i) lastCr = data[end - 1] == '\r';
        if (found == std::string_view::npos) return;
        lf(!lastCr);
        lastCr = false;
        i = found + 1;
    }
}

// Whether a line that begins with `head` declares an attachment ("Content-Disposition: attachment").
bool IsAttachmentLine(std::string_view head) {
    constexpr std::string_view kField = "content-disposition:";
    if (!core::Ascii::EqualsIgnoreCase(head.substr(0, kField.size()), kField)) return false;
    head.remove_prefix(std::min(head.size(), kField.size()));
    while (!head.empty() && (head.front() == ' ' || head.front() == '\t')) head.remove_prefix(1);
    return core::Ascii::EqualsIgnoreCase(head.substr(0, 10), "attachment");
}

// Where the header of `text` ends (just after its empty line), or npos when no empty line is in it yet.
// Walks the lines from the start, so it stops at the header's end rather than searching the whole text.
std::size_t HeaderEnd(std::string_view text) {
    std::size_t line = 0;
    while (true) {
        const std::string_view rest = text.substr(line);
        if (rest.starts_with("\n")) return line + 1;
        if (rest.starts_with("\r\n")) return line + 2;
        const std::size_t lf = text.find('\n', line);
        if (lf == std::string_view::npos) return lf;
        line = lf + 1;
    }
}

}  // namespace

std::optional<MessageFile> MessageFile::Open(const char* path) {
    // O_NONBLOCK: opening a FIFO put in place of a message must not wait for a writer.
    return FromDescriptor(::open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
}

std::optional<MessageFile> MessageFile::OpenWithoutLinks(const char* path) {
    open_how how{};
    how.flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    // A kernel older than 5.6 answers ENOSYS: nothing is opened, and the caller goes the checked way.
    return FromDescriptor(static_cast<int>(::syscall(SYS_openat2, AT_FDCWD, path, &how, sizeof how)));
}

std::optional<MessageFile> MessageFile::FromDescriptor(int fd) {
    if (fd < 0) return std::nullopt;
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        ::close(fd);
        return std::nullopt;
    }
    return MessageFile(fd, info);
}

MessageFile::MessageFile(MessageFile&& other) noexcept : fd_(other.fd_), info_(other.info_) { other.fd_ = -1; }

MessageFile& MessageFile::operator=(MessageFile&& other) noexcept {
    if (this != &other) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = other.fd_;
        info_ = other.info_;
        other.fd_ = -1;
    }
    return *this;
}

MessageFile::~MessageFile() {
    if (fd_ >= 0) ::close(fd_);
}

std::string MessageFile::Header() const {
    std::string text;
    while (text.size() < kHeaderLimit) {
        const std::size_t before = text.size();
        text.resize(std::min(kHeaderLimit, before + kHeaderBlock));
        const long n = ReadAt(fd_, text.data() + before, text.size() - before, before);
        text.resize(before + static_cast<std::size_t>(std::max(n, 0L)));
        // Looked for from the start again: the empty line may straddle two reads.
        const std::size_t end = HeaderEnd(text);
        if (end != std::string::npos) {
            text.resize(end);
            break;
        }
        if (n <= 0) break;
    }
    return text;
}

MessageFile::Facts MessageFile::ReadFacts() const {
    const FileKey key{info_.st_dev, info_.st_ino, info_.st_size, info_.st_mtim.tv_sec, info_.st_mtim.tv_nsec};
    if (auto known = FactsCacheInstance().Find(key)) return *known;
    const Facts found = Scan();
    FactsCacheInstance().Store(key, found);
    return found;
}

MessageFile::Facts MessageFile::Scan() const {
    Facts facts;
    std::uint64_t bareLfs = 0;
    std::string block(kScanBlock, '\0');
    std::string lineHead;  // the first bytes of the current line, enough to recognise the attachment field
    constexpr std::size_t kHeadBytes = 48;
    bool lastCr = false;
    std::uint64_t offset = 0;
    while (true) {
        const long n = ReadAt(fd_, block.data(), block.size(), offset);
        if (n <= 0) break;
        offset += static_cast<std::uint64_t>(n);
        WalkLines(
            std::string_view(block.data(), static_cast<std::size_t>(n)), lastCr,
            [&](std::string_view text) {
                if (lineHead.size() < kHeadBytes) lineHead.append(text.substr(0, kHeadBytes - lineHead.size()));
            },
            [&](bool bare) {
                if (bare) ++bareLfs;
                facts.attachmentLine = facts.attachmentLine || IsAttachmentLine(lineHead);
                lineHead.clear();
            });
    }
    facts.attachmentLine = facts.attachmentLine || IsAttachmentLine(lineHead);
    facts.bareLf = bareLfs > 0;
    facts.servedSize = offset + bareLfs;
    return facts;
}

long MessageFile::ReadRaw(std::uint64_t offset, char* out, std::size_t capacity) const {
    return ReadAt(fd_, out, capacity, offset);
}

long MessageFile::ReadServed(std::uint64_t& offset, bool& lastCr, char* out, std::size_t capacity) const {
    char in[16 * 1024];
    std::size_t written = 0;
    while (capacity - written >= 2) {
        // Each input byte makes at most two output bytes, so whatever is read fits.
        const std::size_t want = std::min(sizeof in, (capacity - written) / 2);
        const long n = ReadAt(fd_, in, want, offset);
        if (n < 0) return -1;
        if (n == 0) break;
        offset += static_cast<std::uint64_t>(n);
        WalkLines(
            std::string_view(in, static_cast<std::size_t>(n)), lastCr,
            [&](std::string_view text) {
                std::memcpy(out + written, text.data(), text.size());
                written += text.size();
            },
            [&](bool bare) {
                if (bare) out[written++] = '\r';
                out[written++] = '\n';
            });
    }
    return static_cast<long>(written);
}

}  // namespace webmail::store
