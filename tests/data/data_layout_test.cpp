#include "support/class_layout/class_layout.hpp"

#include <gmock/gmock.h>

#include <string>

namespace {

using testing::ElementsAre;
using testing::SizeIs;

support::VirtualTable onlyTable(std::string const& source, std::string const& className) {
    auto const tables = support::virtualTables(source, className);
    EXPECT_THAT(tables, SizeIs(1));
    return tables.front();
}

TEST(TheSlotsOfAnUntypedEndpoint, AreThoseOfASubscriberAndThenItsOwn) {
    EXPECT_THAT(
        onlyTable("#include <mqtt/data.hpp>\n"
                  "struct Probe : mqtt::MqttDataBase {\n"
                  "    Probe(mqtt::MqttClient& c) : MqttDataBase(c, mqtt::Topic()) {}\n"
                  "    ~Probe() override;\n"
                  "    void deserialize(mqtt::Topic const&, std::string const&, bool) override;\n"
                  "    void serialize(mqtt::Topic const&, std::string&) const override;\n"
                  "    void notify(bool, int, Lock&) override;\n"
                  "};\n",
                  "Probe"),
        ElementsAre("mqtt::MqttDataBase::onMqttMessage", "Probe::~Probe", "Probe::~Probe",
                    "mqtt::MqttDataBase::getPublishTopic", "mqtt::MqttDataBase::getSubscribeTopic",
                    "Probe::deserialize", "Probe::serialize", "Probe::notify"));
}

TEST(TheSlotsOfATypedEndpoint, AreInTheOrderOfTheUntypedOne) {
    std::string const name = "mqtt::MqttData<mqtt::Link>::";
    EXPECT_THAT(onlyTable("#include <mqtt/link.hpp>\n"
                          "struct Probe : mqtt::MqttData<mqtt::Link> {\n"
                          "    using MqttData::MqttData;\n"
                          "    ~Probe() override;\n"
                          "};\n",
                          "Probe"),
                ElementsAre("mqtt::MqttDataBase::onMqttMessage", "Probe::~Probe", "Probe::~Probe",
                            name + "getPublishTopic", name + "getSubscribeTopic",
                            name + "deserialize", name + "serialize", name + "notify"));
}

TEST(TheSlotsOfACollection, AreThoseOfItsVectorButForTheDestructors) {
    std::string const own = "mqtt::MqttDataCollection<mqtt::Link>::";
    std::string const name = "mqtt::MqttData<std::vector<mqtt::Link> >::";
    EXPECT_THAT(onlyTable("#include <mqtt/link.hpp>\n", "mqtt::MqttDataCollection<mqtt::Link>"),
                ElementsAre("mqtt::MqttDataBase::onMqttMessage", own + "~MqttDataCollection",
                            own + "~MqttDataCollection", name + "getPublishTopic",
                            name + "getSubscribeTopic", name + "deserialize", name + "serialize",
                            name + "notify"));
}

TEST(TheSlotsOfATypedSubscriber, AreTheOneCall) {
    EXPECT_THAT(onlyTable("#include <mqtt/link.hpp>\n"
                          "struct Probe : mqtt::MqttData<mqtt::Link>::Subscriber {\n"
                          "    void onMqttData(mqtt::Link const&, bool, int) override;\n"
                          "};\n",
                          "Probe"),
                ElementsAre("Probe::onMqttData"));
}

} // namespace
