#include "webmail/relay/SyncedFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace webmail::relay {

void WriteSynced(const std::filesystem::path& file, std::string_view bytes) {
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) throw std::runtime_error("cannot create " + file.string() + ": " + std::strerror(errno));
    bool ok = true;
    while (ok && !bytes.empty()) {
        const ssize_t n = ::write(fd, bytes.data(), bytes.size());
        if (n < 0 && errno == EINTR) continue;
        ok = n > 0;
        if (ok) bytes.remove_prefix(static_cast<std::size_t>(n));
    }
    ok = ok && ::fsync(fd) == 0;
    const std::string reason = ok ? std::string() : std::strerror(errno);
    ::close(fd);
    if (!ok) {
        ::unlink(file.c_str());
        throw std::runtime_error("cannot write " + file.string() + ": " + reason);
    }
}

}  // namespace webmail::relay
