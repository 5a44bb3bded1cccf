#include "support/class_layout/class_layout.hpp"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace {

using support::VirtualTable;
using testing::ElementsAre;

std::vector<VirtualTable> tables(std::string const& more, std::string const& className) {
    return support::virtualTables("#include <mqtt/request_reply.hpp>\n" + more, className);
}

/// The tables of a class `Probe` that derives from an interface and overrides its functions.
std::vector<VirtualTable> probeTables(std::string const& base, std::string const& overrides) {
    return tables("struct Probe : " + base + " {\n" + overrides + "};\n", "Probe");
}

TEST(TheSlotsOfAPayload, AreDestructorReadingAndWriting) {
    EXPECT_THAT(
        probeTables("mqtt::RequestReplyData",
                    "    ~Probe() override;\n"
                    "    void deserialize(zym::common::lwjson::Deserializer&) override;\n"
                    "    void serialize(zym::common::lwjson::Serializer&) const override;\n"),
        ElementsAre(ElementsAre("Probe::~Probe", "Probe::~Probe", "Probe::deserialize",
                                "Probe::serialize")));
}

TEST(TheSlotsOfTheEmptyPayload, AreThoseOfEveryPayload) {
    EXPECT_THAT(tables("", "mqtt::RequestReplyNoData"),
                ElementsAre(ElementsAre("mqtt::RequestReplyNoData::~RequestReplyNoData",
                                        "mqtt::RequestReplyNoData::~RequestReplyNoData",
                                        "mqtt::RequestReplyNoData::deserialize",
                                        "mqtt::RequestReplyNoData::serialize")));
}

TEST(TheSlotsOfARequest, AreItsDestructor) {
    EXPECT_THAT(tables("", "mqtt::RequestReply::Request"),
                ElementsAre(ElementsAre("mqtt::RequestReply::Request::~Request",
                                        "mqtt::RequestReply::Request::~Request")));
}

TEST(TheSlotsOfAReply, AreItsDestructor) {
    EXPECT_THAT(tables("", "mqtt::RequestReply::Reply"),
                ElementsAre(ElementsAre("mqtt::RequestReply::Reply::~Reply",
                                        "mqtt::RequestReply::Reply::~Reply")));
}

TEST(TheSlotsOfARequestReply, AreItsDestructor) {
    EXPECT_THAT(tables("", "mqtt::RequestReply"),
                ElementsAre(ElementsAre("mqtt::RequestReply::~RequestReply",
                                        "mqtt::RequestReply::~RequestReply")));
}

TEST(TheSlotsOfAServer, AreItsDestructorAndWhatARequestEndpointCalls) {
    EXPECT_THAT(tables("", "mqtt::RequestReplyServer"),
                ElementsAre(ElementsAre("mqtt::RequestReplyServer::~RequestReplyServer",
                                        "mqtt::RequestReplyServer::~RequestReplyServer",
                                        "mqtt::RequestReplyServer::onMqttData"),
                            ElementsAre("mqtt::RequestReplyServer::onMqttData")));
}

TEST(TheSlotsOfAServersListener, AreTheOneCall) {
    EXPECT_THAT(
        probeTables("mqtt::RequestReplyServer::Listener",
                    "    std::shared_ptr<mqtt::RequestReplyData> onRequest(std::string const&,\n"
                    "        zym::common::Uuid const&, zym::common::Uuid const&,\n"
                    "        mqtt::RequestReplyData const&,\n"
                    "        mqtt::RequestReply::ErrorCode&) override;\n"),
        ElementsAre(ElementsAre("Probe::onRequest")));
}

TEST(TheSlotsOfAMessageSubscriber, AreTheOneCall) {
    for (std::string const type : {"mqtt::RequestReply::Request", "mqtt::RequestReply::Reply"}) {
        EXPECT_THAT(probeTables("mqtt::MqttData<" + type + ">::Subscriber",
                                "    void onMqttData(" + type + " const&, bool, int) override;\n"),
                    ElementsAre(ElementsAre("Probe::onMqttData")));
    }
}

TEST(TheSlotsOfAMessageEndpoint, AreThoseOfEveryEndpoint) {
    for (std::string const type : {"mqtt::RequestReply::Request", "mqtt::RequestReply::Reply"}) {
        EXPECT_THAT(probeTables("mqtt::MqttData<" + type + ">",
                                "    ~Probe() override;\n"
                                "    void getPublishTopic(mqtt::Topic&) override;\n"
                                "    void getSubscribeTopic(mqtt::Topic&) override;\n"
                                "    void deserialize(mqtt::Topic const&, std::string const&,\n"
                                "                     bool) override;\n"
                                "    void serialize(mqtt::Topic const&,\n"
                                "                   std::string&) const override;\n"
                                "    void notify(bool, int, Lock&) override;\n"),
                    ElementsAre(ElementsAre("mqtt::MqttDataBase::onMqttMessage", "Probe::~Probe",
                                            "Probe::~Probe", "Probe::getPublishTopic",
                                            "Probe::getSubscribeTopic", "Probe::deserialize",
                                            "Probe::serialize", "Probe::notify")));
    }
}

} // namespace
