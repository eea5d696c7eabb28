#include "core/MErrorHandler.h"

#include "core/Error.h"

namespace core::MErrorHandler {
namespace {

// One set for the whole process; only the user-interface thread touches it.
struct KeptError {
    bool kept = false;
    std::int32_t number = 0;
    std::string source;
    std::string description;
};

KeptError& Kept() {
    static KeptError instance;
    return instance;
}

}  // namespace

void HandleError(std::int32_t number, const std::string& source, const std::string& description) {
    KeptError& k = Kept();
    if (!k.kept) {
        k.number = number;
        k.source = source;
        k.description = description;
        k.kept = true;
    }
    throw Error(k.number, k.source, k.description);
}

bool HasKeptError() { return Kept().kept; }

void ResetForTesting() { Kept() = KeptError{}; }

}  // namespace core::MErrorHandler
