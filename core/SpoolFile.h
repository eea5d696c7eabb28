// A file with no name that holds texts too long to keep in memory (the messages of a listing): readable and
// writable by this user alone, and gone with its last holder or with the process, however the process ends.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <string_view>

namespace core {

class SpoolFile {
public:
    // A new, empty file in the temp folder ($TMPDIR, else /tmp); raises 75 "Path/File access error" when none
    // can be made there.
    static std::shared_ptr<SpoolFile> Create();
    // Closes the file, which the system then removes.
    ~SpoolFile();
    SpoolFile(const SpoolFile&) = delete;
    SpoolFile& operator=(const SpoolFile&) = delete;

    // Appends `data` at the end. A write that fails (61 "Disk full" for a full disk or a size limit, 57 "Device
    // I/O error" otherwise) raises, and the file stays failed: every later Append, and CheckWritten, raises
    // the same error, so a text cut short can never pass as whole.
    void Append(std::string_view data);
    // Raises the error of the first failed Append, if any.
    void CheckWritten() const;
    // Bytes appended so far.
    std::uint64_t Size() const { return size_; }
    // Replaces `out` with up to `count` bytes from `offset` (fewer only at the end of the file); raises 57
    // "Device I/O error" when the file cannot be read.
    void Read(std::uint64_t offset, std::size_t count, std::string& out) const;

private:
    explicit SpoolFile(int fd) : fd_(fd) {}

    int fd_;
    std::uint64_t size_ = 0;
    std::exception_ptr failed_;
};

}  // namespace core
