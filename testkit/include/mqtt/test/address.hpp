#pragma once

#include <mqtt/connection_options.hpp>

#include <optional>
#include <string>

namespace mqtt::test {

/// Where a broker is: any broker, also one that the test has not started.
struct Address {
    std::string host = "127.0.0.1"; ///< or the path of a unix socket, with port 0
    int port = 1883;
    std::optional<Credentials> credentials = std::nullopt;
};

} // namespace mqtt::test
