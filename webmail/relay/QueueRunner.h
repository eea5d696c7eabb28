// The queue runner: every Outbox of the store is a queue of mail for other domains. Each message is handed
// to the smarthost with all its recipients not yet done; a temporary failure is tried again after a pause
// that doubles from the first to the longest; a refusal for good, or the time limit, sends the account a
// delivery report. A message leaves its Outbox once every recipient is delivered or reported (a copy is
// already in Sent Items). The state of each message lives beside the Outbox (QueueState), so that a
// restart resumes where the last run stopped; a message whose attempt was cut short is sent again. While the
// smarthost cannot be reached at all, the whole queue waits. One process at a time runs a store's queue (a
// lock on DIR/.relay.lock); another one started on the same store waits until the lock is free.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <ctime>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "webmail/relay/SmtpRelay.h"
#include "webmail/store/MaildirStore.h"

namespace webmail::relay {

class QueueRunner {
public:
    struct Options {
        SmtpRelay::Options relay;
        std::string domain;                                       // the store's mail domain
        std::chrono::seconds firstPause{60};                      // after the first temporary failure
        std::chrono::seconds maxPause{3600};                      // the longest pause
        std::chrono::seconds giveUp{std::chrono::hours(24 * 5)};  // time limit from queueing to the report
        std::chrono::milliseconds scanInterval{1000};             // how often the Outboxes are looked at
        bool trace = false;                                       // log every SMTP conversation
    };

    QueueRunner(const store::MaildirStore& store, Options options);
    ~QueueRunner();
    QueueRunner(const QueueRunner&) = delete;
    QueueRunner& operator=(const QueueRunner&) = delete;

    // Runs passes on a thread of its own until Stop().
    void Start();
    // Lets an attempt under way finish, then stops the thread.
    void Stop();
    // One pass over every account's Outbox: tries each message that is due. Returns how many were tried.
    std::size_t RunOnce();

    // A duration as the user reads it: "5 days", "1 hour", "90 seconds".
    static std::string DurationText(std::chrono::seconds duration);

private:
    // Tries one message file of an Outbox if it is due; true when it was tried.
    bool TryMessage(const store::Account& account, const std::string& id, const std::filesystem::path& file);
    // Puts a delivery report into the account's INBOX under a name of its own, once however often called.
    void DeliverReport(const store::Account& account, const std::string& name, const std::string& bytes);
    // Takes the message out of the Outbox (if it is still there) and forgets its state.
    void Finish(const store::Account& account, const std::string& id, const std::filesystem::path& stateFile);
    void Log(const std::string& line) const;
    // Whether this process holds the store's relay lock, taking it when it is free.
    bool HoldsLock();

    const store::MaildirStore& store_;
    Options options_;
    SmtpRelay relay_;
    std::set<std::string> reported_;  // files without an envelope, logged once
    // While the smarthost cannot be reached, no message is tried before this time (each failure in a row
    // doubles the pause, as for one message), so that a long queue does not wait out one timeout each.
    std::time_t unreachableUntil_ = 0;
    unsigned unreachable_ = 0;
    std::string unreachableReply_ = "no connection to the mail server";  // why it could not be reached
    int lockFd_ = -1;
    bool lockReported_ = false;
    std::thread thread_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
};

}  // namespace webmail::relay
