#include "app/HeadlessView.h"

#include <cstdio>

namespace app {
namespace {

void WriteLine(std::FILE* stream, const std::string& text) {
    std::fputs("tarnwick-gateway: ", stream);
    std::fwrite(text.data(), 1, text.size(), stream);
    std::fputc('\n', stream);
    std::fflush(stream);
}

}  // namespace

void HeadlessView::AppendLog(const std::string& entry) {
    // Whoever reads the log follows it live, so nothing may wait in the buffer.
    std::fwrite(entry.data(), 1, entry.size(), stdout);
    std::fflush(stdout);
}

void HeadlessView::AppendLogParts(std::span<const std::string_view> parts) {
    for (std::string_view part : parts) {
        // An empty part may have no data pointer at all, which fwrite must not be given.
        if (!part.empty()) std::fwrite(part.data(), 1, part.size(), stdout);
    }
    std::fflush(stdout);
}

void HeadlessView::AppendLogPieces(std::string_view head, core::ITextPieces& text) {
    std::fwrite(head.data(), 1, head.size(), stdout);
    std::string piece;
    while (text.Next(piece)) std::fwrite(piece.data(), 1, piece.size(), stdout);
    std::fputs("\r\n", stdout);
    std::fflush(stdout);
}

void HeadlessView::ShowMessage(const std::string& text) { WriteLine(stderr, text); }

void HeadlessView::ShowFatalMessage(const std::string& text) { WriteLine(stderr, text); }

}  // namespace app
