// The activity log on its way to the view. A view that lays out and repaints for every append (the window)
// gets the entries written while the event loop is busy in one append, at the next turn of the loop, and while
// entries keep coming, at most one append per kMinAppendIntervalMs; any other view (headless) gets each entry
// at once. Either way the view receives the same text in the same order.
#pragma once

#include <QElapsedTimer>
#include <QTimer>

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "app/IMainView.h"
#include "core/IGatewayHost.h"

namespace app {

class LogBatch {
public:
    // A busy connection writes thousands of entries a second; the eye needs no more than this many appends.
    static constexpr int kMinAppendIntervalMs = 40;

    explicit LogBatch(IMainView& view);
    LogBatch(const LogBatch&) = delete;
    LogBatch& operator=(const LogBatch&) = delete;

    // The entry `head` + `text` + CR LF. `text` lies inside `owner` (or in `head`'s caller's keeping when
    // there is no owner, in which case it must be empty): a waiting entry keeps the owner, not a copy.
    void Add(std::string_view head, std::string_view text, const core::SharedText& owner);
    // The entry `head` + the text `text` reads + CR LF. A view that batches keeps the whole text anyway, so
    // it is read whole and waits like any entry; any other view reads it a piece at a time.
    void AddPieces(std::string_view head, core::ITextPieces& text);
    // Entries still waiting are dropped; the view's own text is the caller's business.
    void Drop();
    // Entries still waiting go to the view now.
    void Flush();

private:
    struct Entry {
        std::string head;
        std::string_view text;
        core::SharedText owner;
    };

    IMainView& view_;
    std::vector<Entry> pending_;
    QTimer turn_;
    QElapsedTimer sinceAppend_;
};

}  // namespace app
