#pragma once

#include "mqtt/client.hpp"
#include "mqtt/export.hpp"
#include "mqtt/link.hpp"

#include <zym/common/uuid.hpp>

#include <atomic>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

// For test programs of a device: checks of what stands on the broker at localhost:1883. Those that
// connect do so with the identifier 0: one at a time, of all programs.

namespace mqtt {

/// A check has failed. It says nothing: what there is to say has been printed.
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

/// Notices whether anything arrives, and writes where it did to the standard output.
class ZYM_MQTT_EXPORT CleanTopicChecker : public MqttClient::Subscriber {
public:
    /// Connects to the broker at localhost:1883, which may take up to 5 seconds, with the
    /// identifier 0.
    CleanTopicChecker();
    ~CleanTopicChecker() override;
    CleanTopicChecker(CleanTopicChecker const&) = delete;
    CleanTopicChecker& operator=(CleanTopicChecker const&) = delete;

    void onMqttMessage(int tag, Topic const& topic, std::string const& payload) override;

    std::atomic<bool> clean{true};
    MqttClient client;
};

/// Checks that no retained message stands on a topic or pattern, for half a second. Prints what it
/// does and how that ended.
///
/// What arrives in the last 100 ms is not seen. Without a broker nothing arrives at all, and the
/// check passes.
/// @throws test_error when there is a message, or something unexpected happened; the latter is
///         printed
ZYM_MQTT_EXPORT void testTopicClean(Topic const& topic, TestCounter& counter);

/// Checks that a link shows up, within three seconds, in the collection published on a topic.
/// Prints what it does and how that ended.
/// @param message what is being checked, for the printing
/// @throws test_error when it does not, or something unexpected happened; the latter is printed
ZYM_MQTT_EXPORT void testLinkInCollection(std::string const& link, Topic const& topic,
                                          char const* message, TestCounter& counter);

/// Whether the collection, as last received, has this very link.
ZYM_MQTT_EXPORT bool isLinkPublishedInCollection(std::string const& link,
                                                 MqttDataCollection<Link>& collection);

/// Whether the collection, as last received, has as many links as there are identifiers, and for
/// each of them a link that contains its base64url text.
ZYM_MQTT_EXPORT bool checkCollectionPublished(std::vector<zym::common::Uuid> const& uuids,
                                              MqttDataCollection<Link>& collection);

} // namespace mqtt
