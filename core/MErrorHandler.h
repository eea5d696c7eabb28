// The process-wide error reporter: keeps the first error it is given and raises it again for ever after.
#pragma once

#include <cstdint>
#include <string>

namespace core::MErrorHandler {

// Keeps (number, source, description) if no error is kept yet, then throws the kept error. Never returns.
[[noreturn]] void HandleError(std::int32_t number, const std::string& source, const std::string& description);

// Whether an error has been kept in this process.
bool HasKeptError();

// Forgets the kept error. Only tests call this: in the program the first error is kept for good.
void ResetForTesting();

}  // namespace core::MErrorHandler
