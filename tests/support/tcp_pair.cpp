#include "support/tcp_pair.hpp"

#include <netinet/in.h>
#include <stdexcept>
#include <sys/socket.h>

namespace support {

TcpPair::TcpPair() : near(::socket(AF_INET, SOCK_STREAM, 0)) {
    FileDescriptor const listener(::socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    if (::bind(listener.get(), any, length) != 0 || ::listen(listener.get(), 1) != 0
        || ::getsockname(listener.get(), any, &length) != 0
        || ::connect(near.get(), any, length) != 0) {
        throw std::runtime_error("no TCP connection over the loopback interface");
    }
    far = FileDescriptor(::accept(listener.get(), nullptr, nullptr));
}

} // namespace support
