#include "support/class_layout/class_layout.hpp"

#include <gmock/gmock.h>

#include <string>

namespace {

using testing::ElementsAre;

std::string const INCLUDE = "#include <mqtt/topic_cleaner.hpp>\n";

TEST(TheSlotsOfACleaner, AreTheCallForMessagesAndItsDestructor) {
    EXPECT_THAT(support::virtualTables(INCLUDE, "mqtt::TopicCleaner"),
                ElementsAre(ElementsAre("mqtt::TopicCleaner::onMqttMessage",
                                        "mqtt::TopicCleaner::~TopicCleaner",
                                        "mqtt::TopicCleaner::~TopicCleaner")));
}

TEST(TheSlotsOfACleaningTask, AreItsDestructor) {
    EXPECT_THAT(support::virtualTables(INCLUDE, "mqtt::TopicCleaner::Task"),
                ElementsAre(ElementsAre("mqtt::TopicCleaner::Task::~Task",
                                        "mqtt::TopicCleaner::Task::~Task")));
}

TEST(TheSlotsOfACleanersListener, AreTheCallForATopicAndThatForAll) {
    EXPECT_THAT(
        support::virtualTables(INCLUDE
                                   + "struct Probe : mqtt::TopicCleaner::Listener {\n"
                                     "    void onAllTopicsCleaned() override;\n"
                                     "    void onTopicCleaned(mqtt::Topic const&) override;\n"
                                     "};\n"
                                     "void Probe::onTopicCleaned(mqtt::Topic const&) {}\n",
                               "Probe"),
        ElementsAre(ElementsAre("Probe::onTopicCleaned", "Probe::onAllTopicsCleaned")));
}

} // namespace
