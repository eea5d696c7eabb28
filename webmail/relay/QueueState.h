// What the queue runner knows of one queued message, kept in a small file beside the Outbox's Maildir
// (OUTBOX/tarnwick-queue/UNIQUE, UNIQUE being the message file's name without its ":2," part), replaced
// whole by write-then-rename so that a crash at any moment leaves the old state or the new one.
#pragma once

#include <chrono>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace webmail::relay {

struct QueueState {
    static constexpr const char* kFolderName = "tarnwick-queue";

    unsigned attempts = 0;          // attempts started so far
    std::time_t queued = 0;         // when the message entered the queue
    std::time_t nextTry = 0;        // not before this time
    bool sending = false;           // an attempt was started and its outcome not yet recorded
    std::vector<std::string> done;  // recipients delivered or bounced: never sent to again
    std::string lastReply;          // the last temporary failure, for the log and a final bounce

    // The file's text: one "key value" line each, "done" once per recipient.
    std::string Serialize() const;
    // Reads the text; unknown lines are ignored, nullopt when a known line is malformed.
    static std::optional<QueueState> Parse(std::string_view text);

    // Reads the state file; nullopt when it is missing or unreadable.
    static std::optional<QueueState> Load(const std::filesystem::path& file);
    // Writes the state file by write, fsync and rename; throws std::runtime_error on failure.
    void Save(const std::filesystem::path& file) const;

    // The pause after the given number of failed attempts: first, doubled for each further one, at most max.
    static std::chrono::seconds Pause(unsigned failures, std::chrono::seconds first, std::chrono::seconds max);
};

}  // namespace webmail::relay
