#include "mqtt/client.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <sstream>
#include <string>
#include <vector>

namespace {

using mqtt::MqttClient;

template <class Error>
std::string textOf(int value) {
    std::ostringstream out;
    out << static_cast<Error>(value);
    return out.str();
}

/// @param names of the values from 0 on
template <class Error>
void expectNames(std::vector<std::string> const& names) {
    for (std::size_t value = 0; value < names.size(); ++value) {
        EXPECT_EQ(textOf<Error>(static_cast<int>(value)), names[value]) << value;
    }
}

TEST(AnError, PrintsItsNameOrUnknown) {
    errno = ECONNREFUSED; // which value 14 prints
    std::string const refused = "ERRNO #" + std::to_string(ECONNREFUSED);
    expectNames<MqttClient::Error>({"SUCCESS", "NO_MEMORY", "UNACCEPTABLE_PROTOCOL",
                                    "INVALID PARAMETER", "NO_CONN", "CONN_REFUSED", "NOT_FOUND",
                                    "CONN_LOST", "TLS", "PAYLOAD_SIZE", "NOT_SUPPORTED", "AUTH",
                                    "ACL_DENIED", "UNKNOWN", refused, "EAI", "PROXY", "UNKNOWN"});
    EXPECT_EQ(textOf<MqttClient::Error>(-1), "CONNECTION_PENDING");
    EXPECT_EQ(textOf<MqttClient::Error>(256), "TIMEOUT");
    for (int const value : {-2, 18, 255, 257, 100000}) {
        EXPECT_EQ(textOf<MqttClient::Error>(value), "UNKNOWN") << value;
    }
}

TEST(AnErrorOfTheBroker, PrintsItsName) {
    expectNames<MqttClient::ConnectionError>({"SUCCESS", "UNACCEPTABLE_PROTOCOL",
                                              "IDENTIFIER_REJECTED", "BROKER_UNAVAILABLE",
                                              "UNKNOWN"});
    EXPECT_EQ(textOf<MqttClient::ConnectionError>(255), "UNKNOWN");
    expectNames<MqttClient::DisconnectionError>({"SUCCESS", "UNEXPECTED", "UNEXPECTED"});
    EXPECT_EQ(textOf<MqttClient::DisconnectionError>(200), "UNEXPECTED");
}

} // namespace
