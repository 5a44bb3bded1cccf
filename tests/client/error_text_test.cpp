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
void expectTexts(std::vector<std::pair<int, std::string>> const& texts) {
    for (auto const& [value, text] : texts) {
        std::ostringstream out;
        out << static_cast<Error>(value);
        EXPECT_EQ(out.str(), text) << value;
    }
}

TEST(AnError, PrintsItsNameOrUnknown) {
    expectTexts<MqttClient::Error>({{-1, "CONNECTION_PENDING"},
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
                                    {256, "TIMEOUT"},
                                    {-2, "UNKNOWN"},
                                    {17, "UNKNOWN"},
                                    {18, "UNKNOWN"},
                                    {255, "UNKNOWN"},
                                    {257, "UNKNOWN"},
                                    {100000, "UNKNOWN"}});
}

TEST(AnError, OfTheSystemPrintsTheCurrentErrno) {
    errno = ECONNREFUSED;
    expectTexts<MqttClient::Error>({{14, "ERRNO #" + std::to_string(ECONNREFUSED)}});
}

TEST(AnErrorOfTheBroker, PrintsItsName) {
    expectTexts<MqttClient::ConnectionError>({{0, "SUCCESS"},
                                              {1, "UNACCEPTABLE_PROTOCOL"},
                                              {2, "IDENTIFIER_REJECTED"},
                                              {3, "BROKER_UNAVAILABLE"},
                                              {4, "UNKNOWN"},
                                              {255, "UNKNOWN"}});
    expectTexts<MqttClient::DisconnectionError>(
        {{0, "SUCCESS"}, {1, "UNEXPECTED"}, {200, "UNEXPECTED"}});
}

} // namespace
