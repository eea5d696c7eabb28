#include "core/SpoolText.h"

#include <algorithm>
#include <utility>

#include "core/Error.h"

namespace core {
namespace {

class SpoolPieces : public ITextPieces {
public:
    SpoolPieces(std::shared_ptr<const SpoolFile> file, std::uint64_t offset, std::uint64_t size, std::size_t pieceBytes)
        : file_(std::move(file)),
          next_(offset),
          end_(offset + size),
          pieceBytes_(std::max<std::size_t>(pieceBytes, 1)) {}

    bool Next(std::string& piece) override {
        piece.clear();
        if (next_ == end_) return false;
        const std::size_t count = static_cast<std::size_t>(std::min<std::uint64_t>(end_ - next_, pieceBytes_));
        file_->Read(next_, count, piece);
        // The stretch was written whole, so a short read means the file lost bytes: never hand out less.
        if (piece.size() != count) Raise(ErrorNumber::kDeviceIo, "SpoolFile");
        next_ += count;
        return true;
    }

private:
    std::shared_ptr<const SpoolFile> file_;
    std::uint64_t next_;
    std::uint64_t end_;
    std::size_t pieceBytes_;
};

}  // namespace

SpoolText::SpoolText(std::shared_ptr<const SpoolFile> file, std::uint64_t offset, std::uint64_t size)
    : file_(std::move(file)), offset_(offset), size_(size) {}

SpoolText SpoolText::Store(std::string_view text) {
    std::shared_ptr<SpoolFile> file = SpoolFile::Create();
    file->Append(text);
    return SpoolText(std::move(file), 0, text.size());
}

TextPiecesPtr SpoolText::Pieces(std::size_t pieceBytes) const {
    return std::make_unique<SpoolPieces>(file_, offset_, size_, pieceBytes);
}

std::string SpoolText::ReadAll() const { return ReadAllPieces(*Pieces()); }

}  // namespace core
