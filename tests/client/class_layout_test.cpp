#include "support/class_layout/class_layout.hpp"

#include <gmock/gmock.h>

#include <string>

namespace {

using testing::ElementsAre;

support::VirtualTable primaryTable(std::string const& more, std::string const& className) {
    return support::virtualTables("#include <mqtt/client.hpp>\n" + more, className).front();
}

TEST(TheSlotsOfTheClient, AreThoseOfTheBrokerLibraryInItsOrder) {
    EXPECT_THAT(primaryTable("", "mqtt::MqttClient"),
                ElementsAre("mqtt::MqttClient::~MqttClient", "mqtt::MqttClient::~MqttClient",
                            "mqtt::MqttClient::on_connect",
                            "mosqpp::mosquittopp::on_connect_with_flags",
                            "mqtt::MqttClient::on_disconnect", "mqtt::MqttClient::on_publish",
                            "mqtt::MqttClient::on_message", "mosqpp::mosquittopp::on_subscribe",
                            "mqtt::MqttClient::on_unsubscribe", "mosqpp::mosquittopp::on_log",
                            "mosqpp::mosquittopp::on_error"));
}

TEST(TheSlotsOfAStateListener, AreTheOneCall) {
    EXPECT_THAT(primaryTable("struct Probe : mqtt::MqttClient::Listener {\n"
                             "    void onComStateChanged(conv::ComState) override;\n"
                             "};\n",
                             "Probe"),
                ElementsAre("Probe::onComStateChanged"));
}

TEST(TheSlotsOfASubscriber, AreTheCallAndThenTheDestructor) {
    EXPECT_THAT(primaryTable("struct Probe : mqtt::MqttClient::Subscriber {\n"
                             "    ~Probe() override;\n"
                             "    void onMqttMessage(int, mqtt::Topic const&,\n"
                             "                       std::string const&) override;\n"
                             "};\n",
                             "Probe"),
                ElementsAre("Probe::onMqttMessage", "Probe::~Probe", "Probe::~Probe"));
}

} // namespace
