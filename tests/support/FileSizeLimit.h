// Test helper: a lower file size limit for the life of the object, with SIGXFSZ ignored, so that a write beyond
// it fails (EFBIG) the way a write to a full disk does, without privileges.
#pragma once

#include <sys/resource.h>

#include <csignal>

namespace testing_support {

class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) : oldHandler_(std::signal(SIGXFSZ, SIG_IGN)) {
        if (getrlimit(RLIMIT_FSIZE, &saved_) != 0) return;
        rlimit lowered = saved_;
        lowered.rlim_cur = bytes;
        active_ = setrlimit(RLIMIT_FSIZE, &lowered) == 0;
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;
    ~FileSizeLimit() { Lift(); }

    bool Active() const { return active_; }
    // Restores the earlier limit and signal handling before the end of the scope; true when the limit is back.
    bool Lift() {
        if (active_) active_ = setrlimit(RLIMIT_FSIZE, &saved_) != 0;
        std::signal(SIGXFSZ, oldHandler_);
        return !active_;
    }

private:
    rlimit saved_{};
    void (*oldHandler_)(int);
    bool active_ = false;
};

}  // namespace testing_support
