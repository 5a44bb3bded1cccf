#include "support/class_layout/class_layout.hpp"

#include <gmock/gmock.h>

namespace {

using testing::ElementsAre;

TEST(TheSlotsOfADiscoverer, AreTheCallsForLinksAndForIdentificationsAndTheLatterAgain) {
    EXPECT_THAT(support::virtualTables("#include <mqtt/service_discoverer.hpp>\n",
                                       "mqtt::ServiceDiscovererMqtt"),
                ElementsAre(ElementsAre("mqtt::ServiceDiscovererMqtt::onMqttData",
                                        "mqtt::ServiceDiscovererMqtt::onMqttData"),
                            ElementsAre("mqtt::ServiceDiscovererMqtt::onMqttData")));
}

} // namespace
