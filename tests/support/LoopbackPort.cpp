#include "tests/support/LoopbackPort.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace testing_support {

std::uint16_t ClosedLoopbackPort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    const bool bound = ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
                       ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0;
    ::close(fd);
    if (!bound) throw std::runtime_error("no free loopback port");
    return ntohs(addr.sin_port);
}

std::string FreePort() { return std::to_string(ClosedLoopbackPort()); }

}  // namespace testing_support
