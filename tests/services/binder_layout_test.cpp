#include "support/class_layout/class_layout.hpp"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;

std::vector<support::VirtualTable> tables(std::string const& className) {
    return support::virtualTables("#include <mqtt/binder_proxy.hpp>\n", className);
}

std::vector<std::string> ofTheProxy(std::vector<std::string> names) {
    for (auto& name : names) {
        name = "mqtt::BinderMqttProxy::" + name;
    }
    return names;
}

TEST(TheSlotsOfTheBinderProxyOverMqtt, BeginWithTheReplyAndEndWithTheTime) {
    EXPECT_THAT(tables("mqtt::BinderMqttProxy").front(),
                ElementsAreArray(
                    ofTheProxy({"onReply", "terminate", "~BinderMqttProxy", "~BinderMqttProxy",
                                "bindSync", "bind", "unbindSync", "unbind", "forceTimeBaseSync",
                                "isTimeBaseSynchronized", "timeBase", "onTimeSynchronized"})));
}

TEST(TheSlotsOfTheBinderProxyOverMqtt, AreThoseOfItsBasesThere) {
    auto const all = tables("mqtt::BinderMqttProxy");
    ASSERT_EQ(all.size(), 3U);
    EXPECT_THAT(all[1], ElementsAreArray(ofTheProxy({"onTimeSynchronized"})));
    EXPECT_THAT(all[2], ElementsAreArray(
                            ofTheProxy({"~BinderMqttProxy", "~BinderMqttProxy", "timeBase",
                                        "terminate", "bindSync", "bind", "unbindSync", "unbind",
                                        "forceTimeBaseSync", "isTimeBaseSynchronized"})));
}

TEST(TheSlotsOfARequestForABinding, AreThoseOfEveryPayload) {
    EXPECT_THAT(tables("mqtt::BindRequestData"),
                ElementsAre(ElementsAre("mqtt::BindRequestData::~BindRequestData",
                                        "mqtt::BindRequestData::~BindRequestData",
                                        "mqtt::BindRequestData::deserialize",
                                        "mqtt::BindRequestData::serialize")));
}

} // namespace
