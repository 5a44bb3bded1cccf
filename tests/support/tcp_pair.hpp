#pragma once

#include "support/file_descriptor.hpp"

namespace support {

/// Both ends of a TCP connection over the loopback interface. Throws when there is none to be had.
struct TcpPair {
    TcpPair();

    FileDescriptor near;
    FileDescriptor far;
};

} // namespace support
