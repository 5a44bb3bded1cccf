#pragma once

#include "mqtt/client.hpp"
#include "mqtt/connection_options.hpp"
#include "mqtt/export.hpp"
#include "mqtt/link.hpp"

#include <zym/common/uuid.hpp>

#include <atomic>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

// For test programs of a device: checks of what a broker has retained, that at localhost:1883
// unless another one is named. Those that connect use the identifier 0: only one of them may run at
// a time, in all programs.

namespace mqtt {

/// A check has failed. Without a text of its own: the check has printed the reason.
class ZYM_MQTT_EXPORT test_error : public std::runtime_error {
public:
    test_error();
    test_error(test_error const&) = default;
    test_error& operator=(test_error const&) = default;
    ~test_error() override;
};

/// The caller's tally of checks.
struct TestCounter {
    std::int32_t started = 0;
    std::int32_t passed = 0;
    std::int32_t failed = 0;
};

/// Records whether a message arrives, and writes its topic to the standard output.
class ZYM_MQTT_EXPORT CleanTopicChecker : public MqttClient::Subscriber {
public:
    /// Connects to the broker at localhost:1883, which may take up to 5 seconds, with the
    /// identifier 0.
    CleanTopicChecker();
    /// Connects to another broker.
    /// @throw std::invalid_argument options that `MqttClient::setOptions` refuses
    CleanTopicChecker(std::string const& host, int port, ConnectionOptions const& options);
    ~CleanTopicChecker() override;
    CleanTopicChecker(CleanTopicChecker const&) = delete;
    CleanTopicChecker& operator=(CleanTopicChecker const&) = delete;

    void onMqttMessage(int tag, Topic const& topic, std::string const& payload) override;

    std::atomic<bool> clean{true};
    MqttClient client;
};

/// Checks for half a second that a topic or pattern has no retained message. Prints what it checks
/// and the result.
///
/// A message in the last 100 ms is not noticed. Without a broker no message arrives, and the check
/// passes.
/// @throws test_error when there is a message, or after an unexpected exception, which is printed
ZYM_MQTT_EXPORT void testTopicClean(Topic const& topic, TestCounter& counter);
/// The same at another broker.
ZYM_MQTT_EXPORT void testTopicClean(Topic const& topic, TestCounter& counter,
                                    std::string const& host, int port,
                                    ConnectionOptions const& options);

/// Checks that a link appears within three seconds in the collection published on a topic. Prints
/// what it checks and the result.
/// @param message what is checked, as it is printed
/// @throws test_error when it does not appear, or after an unexpected exception, which is printed
ZYM_MQTT_EXPORT void testLinkInCollection(std::string const& link, Topic const& topic,
                                          char const* message, TestCounter& counter);
/// The same at another broker.
ZYM_MQTT_EXPORT void testLinkInCollection(std::string const& link, Topic const& topic,
                                          char const* message, TestCounter& counter,
                                          std::string const& host, int port,
                                          ConnectionOptions const& options);

/// Whether the collection, as last received, has exactly this link.
ZYM_MQTT_EXPORT bool isLinkPublishedInCollection(std::string const& link,
                                                 MqttDataCollection<Link>& collection);

/// Whether the collection, as last received, has as many links as there are identifiers, and for
/// each of them a link that contains its base64url text.
ZYM_MQTT_EXPORT bool checkCollectionPublished(std::vector<zym::common::Uuid> const& uuids,
                                              MqttDataCollection<Link>& collection);

} // namespace mqtt
