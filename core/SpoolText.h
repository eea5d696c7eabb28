// One text kept in a spool file: the stretch of the file it occupies. Copies share the file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "core/ITextPieces.h"
#include "core/SpoolFile.h"

namespace core {

class SpoolText {
public:
    // How much of the file one piece of a reader holds.
    static constexpr std::size_t kPieceBytes = std::size_t{256} << 10;

    // The empty text; it needs no file.
    SpoolText() = default;
    SpoolText(std::shared_ptr<const SpoolFile> file, std::uint64_t offset, std::uint64_t size);
    // `text` written to a spool file of its own (for texts that do not come from a service reply).
    static SpoolText Store(std::string_view text);

    std::uint64_t Size() const { return size_; }
    bool Empty() const { return size_ == 0; }
    // A reader of the text in pieces of at most `pieceBytes`.
    TextPiecesPtr Pieces(std::size_t pieceBytes = kPieceBytes) const;
    // The whole text at once; for short texts only.
    std::string ReadAll() const;

private:
    std::shared_ptr<const SpoolFile> file_;
    std::uint64_t offset_ = 0;
    std::uint64_t size_ = 0;
};

}  // namespace core
