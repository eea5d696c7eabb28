#include "app/LogBatch.h"

#include <algorithm>
#include <memory>
#include <utility>

namespace app {
namespace {

constexpr std::string_view kCrLf = "\r\n";

}  // namespace

LogBatch::LogBatch(IMainView& view) : view_(view) {
    turn_.setSingleShot(true);
    QObject::connect(&turn_, &QTimer::timeout, [this] { Flush(); });
}

void LogBatch::Add(std::string_view head, std::string_view text, const core::SharedText& owner) {
    if (!view_.BatchesLog()) {
        const std::string_view parts[] = {head, text, kCrLf};
        view_.AppendLogParts(parts);
        return;
    }
    pending_.push_back(Entry{std::string(head), text, owner});
    if (turn_.isActive()) return;
    // The next turn of the loop, unless the last append was very recent.
    const qint64 since = sinceAppend_.isValid() ? sinceAppend_.elapsed() : kMinAppendIntervalMs;
    turn_.start(static_cast<int>(std::max<qint64>(0, kMinAppendIntervalMs - since)));
}

void LogBatch::AddPieces(std::string_view head, core::ITextPieces& text) {
    if (!view_.BatchesLog()) {
        view_.AppendLogPieces(head, text);
        return;
    }
    const auto whole = std::make_shared<const std::string>(core::ReadAllPieces(text));
    Add(head, *whole, whole);
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
    sinceAppend_.start();
    view_.AppendLogParts(parts);
}

}  // namespace app
