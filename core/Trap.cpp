#include "core/Trap.h"

namespace core {

Error CurrentError() {
    try {
        throw;
    } catch (const Error& e) {
        return e;
    } catch (const std::bad_alloc&) {
        return Error(ErrorNumber::kOutOfMemory, {}, StandardDescription(ErrorNumber::kOutOfMemory));
    } catch (const std::exception& e) {
        return Error(ErrorNumber::kInternal, {}, StandardDescription(ErrorNumber::kInternal) + ": " + e.what());
    } catch (...) {
        return Error(ErrorNumber::kInternal, {}, StandardDescription(ErrorNumber::kInternal));
    }
}

}  // namespace core
