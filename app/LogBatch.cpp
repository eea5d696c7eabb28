#include "app/LogBatch.h"

#include <utility>

namespace app {
namespace {

constexpr std::string_view kCrLf = "\r\n";

}  // namespace

LogBatch::LogBatch(IMainView& view) : view_(view) {
    turn_.setSingleShot(true);
    turn_.setInterval(0);
    QObject::connect(&turn_, &QTimer::timeout, [this] { Flush(); });
}

void LogBatch::Add(std::string_view head, std::string_view text, const core::SharedText& owner) {
    if (!view_.BatchesLog()) {
        const std::string_view parts[] = {head, text, kCrLf};
        view_.AppendLogParts(parts);
        return;
    }
    pending_.push_back(Entry{std::string(head), text, owner});
    if (!turn_.isActive()) turn_.start();
}

void LogBatch::Drop() {
    pending_.clear();
    turn_.stop();
}

void LogBatch::Flush() {
    turn_.stop();
    if (pending_.empty()) return;
    // Taken first: whatever the view does, an entry is shown once.
    const std::vector<Entry> entries = std::exchange(pending_, {});
    std::vector<std::string_view> parts;
    parts.reserve(entries.size() * 3);
    for (const Entry& e : entries) {
        parts.push_back(e.head);
        parts.push_back(e.text);
        parts.push_back(kCrLf);
    }
    view_.AppendLogParts(parts);
}

}  // namespace app
