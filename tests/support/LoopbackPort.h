// Ports on 127.0.0.1 for tests: one that nothing listens on, for refusals and for servers a test starts.
#pragma once

#include <cstdint>
#include <string>

namespace testing_support {

// A port on 127.0.0.1 that nothing listens on (bound, then released).
std::uint16_t ClosedLoopbackPort();

// The same port as decimal text, as the port boxes take it: free a moment ago, so a test can listen on it.
std::string FreePort();

}  // namespace testing_support
