#include "mqtt/client.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

using mqtt::MqttClient;

template <class Error>
std::string printed(Error error) {
    std::ostringstream out;
    out << error;
    return out.str();
}

TEST(AnError, PrintsItsName) {
    std::vector<std::pair<int, std::string>> const names{{-1, "CONNECTION_PENDING"},
                                                         {0, "SUCCESS"},
                                                         {1, "NO_MEMORY"},
                                                         {2, "UNACCEPTABLE_PROTOCOL"},
                                                         {3, "INVALID PARAMETER"},
                                                         {4, "NO_CONN"},
                                                         {5, "CONN_REFUSED"},
                                                         {6, "NOT_FOUND"},
                                                         {7, "CONN_LOST"},
                                                         {8, "TLS"},
                                                         {9, "PAYLOAD_SIZE"},
                                                         {10, "NOT_SUPPORTED"},
                                                         {11, "AUTH"},
                                                         {12, "ACL_DENIED"},
                                                         {13, "UNKNOWN"},
                                                         {15, "EAI"},
                                                         {16, "PROXY"},
                                                         {256, "TIMEOUT"}};
    for (auto const& [value, name] : names) {
        EXPECT_EQ(printed(static_cast<MqttClient::Error>(value)), name) << value;
    }
}

TEST(AnError, WithoutANamePrintsAsUnknown) {
    for (int const value : {-2, 17, 18, 255, 257, 100000}) {
        EXPECT_EQ(printed(static_cast<MqttClient::Error>(value)), "UNKNOWN") << value;
    }
}

TEST(AnError, OfTheSystemPrintsTheErrnoOfTheMoment) {
    std::ostringstream out;
    errno = ECONNREFUSED;
    out << MqttClient::Error::ERRNO;
    EXPECT_EQ(out.str(), "ERRNO #" + std::to_string(ECONNREFUSED));
}

TEST(AConnectionError, PrintsItsNameOrUnknown) {
    std::vector<std::pair<unsigned char, std::string>> const names{{0, "SUCCESS"},
                                                                   {1, "UNACCEPTABLE_PROTOCOL"},
                                                                   {2, "IDENTIFIER_REJECTED"},
                                                                   {3, "BROKER_UNAVAILABLE"},
                                                                   {4, "UNKNOWN"},
                                                                   {255, "UNKNOWN"}};
    for (auto const& [value, name] : names) {
        EXPECT_EQ(printed(static_cast<MqttClient::ConnectionError>(value)), name) << +value;
    }
}

TEST(ADisconnectionError, IsSuccessOrUnexpected) {
    EXPECT_EQ(printed(MqttClient::DisconnectionError::SUCCESS), "SUCCESS");
    EXPECT_EQ(printed(MqttClient::DisconnectionError::UNEXPECTED), "UNEXPECTED");
    EXPECT_EQ(printed(static_cast<MqttClient::DisconnectionError>(200)), "UNEXPECTED");
}

} // namespace
