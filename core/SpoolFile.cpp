#include "core/SpoolFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

#include "core/Error.h"

namespace core {
namespace {

constexpr const char* kSource = "SpoolFile";

std::string TempFolder() {
    const char* dir = std::getenv("TMPDIR");
    return dir && *dir ? dir : "/tmp";
}

// A file with no name from the start where the file system allows it; otherwise a named one, unlinked at once.
int OpenUnnamed(const std::string& dir) {
    const int fd = ::open(dir.c_str(), O_TMPFILE | O_RDWR | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (fd >= 0 || (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL)) return fd;
    std::string pattern = dir + "/tarnwick-spool-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    const int named = ::mkostemp(name.data(), O_CLOEXEC);
    if (named >= 0) ::unlink(name.data());
    return named;
}

[[noreturn]] void RaiseWriteError(int error) {
    const bool full = error == ENOSPC || error == EDQUOT || error == EFBIG;
    Raise(full ? ErrorNumber::kDiskFull : ErrorNumber::kDeviceIo, kSource);
}

}  // namespace

std::shared_ptr<SpoolFile> SpoolFile::Create() {
    const int fd = OpenUnnamed(TempFolder());
    if (fd < 0) Raise(ErrorNumber::kFileAccess, kSource);
    return std::shared_ptr<SpoolFile>(new SpoolFile(fd));
}

SpoolFile::~SpoolFile() { ::close(fd_); }

void SpoolFile::Append(std::string_view data) {
    CheckWritten();
    try {
        while (!data.empty()) {
            const ssize_t written = ::pwrite(fd_, data.data(), data.size(), static_cast<off_t>(size_));
            if (written < 0 && errno == EINTR) continue;
            // A write of nothing would repeat for ever; the system says no more room.
            if (written <= 0) RaiseWriteError(written < 0 ? errno : ENOSPC);
            size_ += static_cast<std::uint64_t>(written);
            data.remove_prefix(static_cast<std::size_t>(written));
        }
    } catch (...) {
        failed_ = std::current_exception();
        throw;
    }
}

void SpoolFile::CheckWritten() const {
    if (failed_) std::rethrow_exception(failed_);
}

void SpoolFile::Read(std::uint64_t offset, std::size_t count, std::string& out) const {
    out.resize(count);
    std::size_t got = 0;
    while (got < count) {
        const ssize_t n = ::pread(fd_, out.data() + got, count - got, static_cast<off_t>(offset + got));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) Raise(ErrorNumber::kDeviceIo, kSource);
        if (n == 0) break;
        got += static_cast<std::size_t>(n);
    }
    out.resize(got);
}

}  // namespace core
