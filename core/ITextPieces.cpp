#include "core/ITextPieces.h"

namespace core {

std::string ReadAllPieces(ITextPieces& pieces) {
    std::string all;
    std::string piece;
    while (pieces.Next(piece)) all += piece;
    return all;
}

}  // namespace core
