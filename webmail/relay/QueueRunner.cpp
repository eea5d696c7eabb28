#include "webmail/relay/QueueRunner.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <vector>

#include "core/Ascii.h"
#include "webmail/relay/BounceReport.h"
#include "webmail/relay/QueueState.h"
#include "webmail/relay/QueuedMessage.h"
#include "webmail/relay/SyncedFile.h"

namespace webmail::relay {

namespace fs = std::filesystem;

namespace {

using Verdict = SmtpExchange::Verdict;

// The file name without its ":2,FLAGS" part.
std::string UniqueOf(const fs::path& file) {
    const std::string name = file.filename().string();
    return name.substr(0, name.find(":2,"));
}

std::string AngleList(const std::vector<std::string>& addresses) {
    std::string out;
    for (const std::string& a : addresses) out += (out.empty() ? "<" : ", <") + a + ">";
    return out;
}

bool Contains(const std::vector<std::string>& list, const std::string& address) {
    return std::any_of(list.begin(), list.end(),
                       [&](const std::string& a) { return core::Ascii::EqualsIgnoreCase(a, address); });
}

std::time_t ModificationTime(const fs::path& file) {
    struct stat info {};
    return ::stat(file.c_str(), &info) == 0 ? info.st_mtime : std::time(nullptr);
}

std::optional<std::string> ReadWhole(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) return std::nullopt;
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

}  // namespace

QueueRunner::QueueRunner(const store::MaildirStore& store, Options options)
    : store_(store), options_(std::move(options)), relay_(options_.relay) {}

QueueRunner::~QueueRunner() {
    Stop();
    if (lockFd_ >= 0) ::close(lockFd_);
}

bool QueueRunner::HoldsLock() {
    if (lockFd_ >= 0) return true;
    const fs::path file = store_.Root() / ".relay.lock";
    const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd >= 0 && ::flock(fd, LOCK_EX | LOCK_NB) == 0) {
        lockFd_ = fd;
        if (lockReported_) Log("relay: the other process let go of the queue; this one runs it now");
        return true;
    }
    if (fd >= 0) ::close(fd);
    if (!lockReported_) Log("relay: another process runs this store's queue (" + file.string() + "); waiting");
    lockReported_ = true;
    return false;
}

void QueueRunner::Start() {
    thread_ = std::thread([this] {
        std::unique_lock lock(mutex_);
        while (!stopping_) {
            lock.unlock();
            try {
                RunOnce();
            } catch (const std::exception& e) {
                Log(std::string("relay: queue pass failed: ") + e.what());
            }
            lock.lock();
            wake_.wait_for(lock, options_.scanInterval, [this] { return stopping_; });
        }
    });
}

void QueueRunner::Stop() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
}

std::size_t QueueRunner::RunOnce() {
    std::size_t tried = 0;
    if (!HoldsLock()) return tried;
    std::error_code ec;
    std::vector<std::string> names;
    for (const auto& item : fs::directory_iterator(store_.Root(), ec)) {
        if (item.is_directory(ec) && !item.is_symlink(ec)) names.push_back(item.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
        const auto account = store_.FindAccount(name);
        if (!account) continue;
        std::vector<store::MaildirEntry> entries;
        std::optional<store::MaildirFolder> outbox;
        {
            std::lock_guard lock(store_.Mutex());
            outbox = account->Folder(store::Account::kOutbox);
            if (outbox) entries = outbox->List();
        }
        if (!outbox) continue;
        const fs::path stateDir = outbox->Dir() / QueueState::kFolderName;
        // State left by messages that are no longer queued (sent, or moved away by their owner).
        std::set<std::string> queued;
        for (const auto& entry : entries) queued.insert(UniqueOf(entry.path));
        for (const auto& item : fs::directory_iterator(stateDir, ec)) {
            std::string unique = item.path().filename().string();
            if (unique.ends_with(".new")) unique.resize(unique.size() - 4);  // a write cut short
            if (!queued.count(unique)) fs::remove(item.path(), ec);
        }
        for (const auto& entry : entries) {
            {
                std::lock_guard lock(mutex_);
                if (stopping_) return tried;
            }
            try {
                if (TryMessage(*account, entry.id, entry.path)) ++tried;
            } catch (const std::exception& e) {
                Log("relay: " + name + "/" + entry.id + ": " + e.what());
            }
        }
    }
    return tried;
}

bool QueueRunner::TryMessage(const store::Account& account, const std::string& id, const fs::path& file) {
    const std::string what = "relay: " + account.Name() + "/" + id + ": ";
    const fs::path stateDir = file.parent_path().parent_path() / QueueState::kFolderName;
    const fs::path stateFile = stateDir / UniqueOf(file);
    const std::time_t start = std::time(nullptr);
    QueueState state;
    if (auto saved = QueueState::Load(stateFile)) {
        state = std::move(*saved);
    } else {
        state.queued = ModificationTime(file);
    }
    if (!state.sending && state.nextTry > start) return false;
    std::string error;
    std::optional<QueuedMessage> message;
    if (auto bytes = ReadWhole(file)) {  // the file's bytes are let go before the message is sent
        message = QueuedMessage::Parse(*bytes, error);
    } else {
        return false;  // moved away meanwhile
    }
    if (!message) {
        if (reported_.insert(file.parent_path().string() + "/" + UniqueOf(file)).second) {
            Log(what + "left alone: " + error);
        }
        return false;
    }
    std::vector<std::string> pending;
    for (const std::string& r : message->recipients) {
        if (!Contains(state.done, r)) pending.push_back(r);
    }
    if (pending.empty()) {
        Finish(account, id, stateFile);
        return false;
    }
    // While the smarthost cannot be reached, a message waits, unless its time is up: then it is returned
    // without another attempt, so that a long queue is not returned one message per pause.
    const bool waitForRelay = start < unreachableUntil_;
    if (waitForRelay && start - state.queued < options_.giveUp.count()) return false;
    std::vector<SmtpExchange::Result> results;
    if (waitForRelay) {
        const std::string& reply = state.lastReply.empty() ? unreachableReply_ : state.lastReply;
        for (const std::string& r : pending) results.push_back({r, Verdict::Temporary, reply});
    } else {
        if (state.sending) Log(what + "an attempt was cut short (the service stopped); sending again");
        fs::create_directories(stateDir);
        ++state.attempts;
        state.sending = true;
        state.Save(stateFile);
        Log(what + "sending to " + AngleList(pending) + " via " + relay_.Host() + " (attempt " +
            std::to_string(state.attempts) + ")");
        SmtpRelay::Attempt attempt = relay_.Send(message->sender, pending, message->text);
        if (options_.trace) Log(what + "SMTP conversation:\n" + attempt.transcript);
        if (attempt.reached) {
            unreachable_ = 0;
        } else {
            const auto wait = QueueState::Pause(++unreachable_, options_.firstPause, options_.maxPause);
            unreachableUntil_ = std::time(nullptr) + wait.count();
            if (!attempt.results.empty()) unreachableReply_ = attempt.results.front().reply;
            Log("relay: " + relay_.Host() + " cannot be reached; the queue waits " + DurationText(wait));
        }
        results = std::move(attempt.results);
    }

    const std::time_t now = std::time(nullptr);
    const bool expired = now - state.queued >= options_.giveUp.count();
    std::vector<BounceReport::Failure> failures;
    std::vector<std::string> deferred;
    std::string deferReply;
    bool delivered = false;
    for (const auto& result : results) {
        if (result.verdict == Verdict::Delivered) {
            delivered = true;
            state.done.push_back(result.recipient);
            Log(what + "delivered to <" + result.recipient + ">: " + result.reply);
        } else if (result.verdict == Verdict::Permanent || expired) {
            failures.push_back({result.recipient, result.reply, result.verdict != Verdict::Permanent});
        } else {
            deferred.push_back(result.recipient);
            deferReply = result.reply;
        }
    }
    if (!failures.empty()) {
        // Those delivered are recorded first: should the report fail, they are not sent to again.
        if (delivered) state.Save(stateFile);
        BounceReport report;
        report.domain = options_.domain;
        report.remoteHost = relay_.Host();
        report.to = account.Name() + "@" + options_.domain;
        report.id = UniqueOf(file) + "-report" + std::to_string(state.attempts) + (waitForRelay ? "x" : "");
        report.arrival = state.queued;
        report.now = now;
        report.timeLimitText = DurationText(options_.giveUp);
        report.failures = failures;
        report.originalHeaders = message->Headers();
        // The report is in the sender's INBOX before the recipients count as done.
        DeliverReport(account, report.id, report.Build());
        for (const auto& f : failures) {
            state.done.push_back(f.recipient);
            Log(what + "returned to " + account.Name() + " for <" + f.recipient + ">: " +
                (f.timeLimit ? "time limit of " + report.timeLimitText + " reached; last reply: " : "") + f.reply);
        }
    }
    if (deferred.empty()) {
        Finish(account, id, stateFile);
        return true;
    }
    const auto pause = QueueState::Pause(state.attempts, options_.firstPause, options_.maxPause);
    state.sending = false;
    state.nextTry = now + pause.count();
    state.lastReply = deferReply;
    state.Save(stateFile);
    Log(what + "deferred " + AngleList(deferred) + ": " + deferReply + "; next attempt in " + DurationText(pause));
    return true;
}

void QueueRunner::DeliverReport(const store::Account& account, const std::string& name, const std::string& bytes) {
    const auto inbox = account.Folder(store::Account::kInbox);
    if (!inbox) throw std::runtime_error("the INBOX of " + account.Name() + " is missing");
    const fs::path temp = inbox->Dir() / "tmp" / name;
    WriteSynced(temp, bytes);
    std::lock_guard lock(store_.Mutex());
    std::error_code ec;
    if (inbox->Find(store::MaildirFolder::IdOf(name))) {
        fs::remove(temp, ec);  // delivered before a restart
        return;
    }
    fs::rename(temp, inbox->Dir() / "new" / name);
}

void QueueRunner::Finish(const store::Account& account, const std::string& id, const fs::path& stateFile) {
    std::error_code ec;
    {
        std::lock_guard lock(store_.Mutex());
        if (const auto outbox = account.Folder(store::Account::kOutbox)) {
            if (const auto entry = outbox->Find(id)) fs::remove(entry->path, ec);
        }
    }
    fs::remove(stateFile, ec);
}

void QueueRunner::Log(const std::string& line) const {
    std::string text = line;
    if (text.empty() || text.back() != '\n') text += '\n';
    std::string_view rest = text;
    while (!rest.empty()) {
        const ssize_t n = ::write(STDERR_FILENO, rest.data(), rest.size());
        if (n <= 0) return;
        rest.remove_prefix(static_cast<std::size_t>(n));
    }
}

std::string QueueRunner::DurationText(std::chrono::seconds duration) {
    const long long s = duration.count();
    const auto unit = [](long long n, const char* name) {
        return std::to_string(n) + " " + name + (n == 1 ? "" : "s");
    };
    if (s != 0 && s % 86400 == 0) return unit(s / 86400, "day");
    if (s != 0 && s % 3600 == 0) return unit(s / 3600, "hour");
    if (s != 0 && s % 60 == 0) return unit(s / 60, "minute");
    return unit(s, "second");
}

}  // namespace webmail::relay
