// One message file, opened without following a symbolic link, and what the listing and a GET need of it:
// the header block, the size as served (every bare LF is served as CR LF) and the served bytes themselves,
// read piece by piece so that no whole message is ever held in memory.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string>

namespace webmail::store {

class MessageFile {
public:
    // What one pass over the whole file finds.
    struct Facts {
        std::uint64_t servedSize = 0;  // bytes a GET serves
        bool bareLf = false;           // whether some LF lacks its CR (the served text then differs)
        bool attachmentLine = false;   // whether a line starts "Content-Disposition: attachment"
    };

    // Most header bytes Header() returns.
    static constexpr std::size_t kHeaderLimit = std::size_t{256} * 1024;

    // Opens a regular file for reading; nullopt when it is missing, a symbolic link or anything else.
    static std::optional<MessageFile> Open(const std::filesystem::path& path) { return Open(path.c_str()); }
    static std::optional<MessageFile> Open(const std::string& path) { return Open(path.c_str()); }
    static std::optional<MessageFile> Open(const char* path);
    // The same, but refused also when any folder on the path is a symbolic link (or the system cannot tell).
    static std::optional<MessageFile> OpenWithoutLinks(const char* path);

    MessageFile(MessageFile&& other) noexcept;
    MessageFile& operator=(MessageFile&& other) noexcept;
    MessageFile(const MessageFile&) = delete;
    MessageFile& operator=(const MessageFile&) = delete;
    ~MessageFile();

    // The file's size on disk and its modification time.
    std::uint64_t Size() const { return static_cast<std::uint64_t>(info_.st_size); }
    std::time_t Modified() const { return info_.st_mtim.tv_sec; }
    // The open descriptor, still owned by this object.
    int Fd() const { return fd_; }
    // Hands the descriptor over to the caller, who closes it; this object is then empty.
    int Release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

    // The text up to and including the empty line that ends the header (the whole file when it has none),
    // at most kHeaderLimit bytes.
    std::string Header() const;
    // The facts of the whole file, from a cache kept per file (device, inode, size and modification time),
    // so that a message is read whole once however often it is listed.
    Facts ReadFacts() const;
    // Reads up to capacity bytes of the file as it is on disk from offset; 0 at the end, -1 on a read error.
    long ReadRaw(std::uint64_t offset, char* out, std::size_t capacity) const;
    // Fills out with served bytes, continuing at input offset `offset` of the file, and advances it;
    // `lastCr` carries whether the input byte before `offset` was a CR. Returns the bytes written: 0 at the
    // end of the file, -1 on a read error. A CR LF pair inserted for a bare LF is never split across calls.
    long ReadServed(std::uint64_t& offset, bool& lastCr, char* out, std::size_t capacity) const;

private:
    MessageFile(int fd, const struct stat& info) : fd_(fd), info_(info) {}
    static std::optional<MessageFile> FromDescriptor(int fd);
    Facts Scan() const;

    int fd_ = -1;
    struct stat info_ {};
};

}  // namespace webmail::store
