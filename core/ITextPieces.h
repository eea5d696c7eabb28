// A text read front to back in pieces, so that a long one (a retrieved message) never has to be in memory whole.
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace core {

class ITextPieces {
public:
    virtual ~ITextPieces() = default;

    // Replaces `piece` with the next piece of the text and returns true; returns false (with `piece` empty)
    // once the whole text has been read. A failure to read raises, and the reader is not used again.
    virtual bool Next(std::string& piece) = 0;
};

using TextPiecesPtr = std::unique_ptr<ITextPieces>;
// Makes a new reader of the same text, from its beginning, each time it is called.
using TextPiecesSource = std::function<TextPiecesPtr()>;

// The whole text of `pieces`, read to its end; for short texts and for views that keep the text anyway.
std::string ReadAllPieces(ITextPieces& pieces);

}  // namespace core
