#include "support/class_layout/class_layout.hpp"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace {

using support::VirtualTable;
using testing::ElementsAre;
using testing::ElementsAreArray;

std::string const INCLUDE = "#include <mqtt/time_base.hpp>\n";

/// The table of the class itself comes first, those of its other bases behind it.
std::vector<VirtualTable> tables(std::string const& className) {
    return support::virtualTables(INCLUDE, className);
}

std::vector<std::string> membersOf(std::string const& scope, std::vector<std::string> names) {
    for (auto& name : names) {
        name.insert(0, scope + "::");
    }
    return names;
}

TEST(TheSlotsOfATimeBaseProxy, AreTheReplyListenersAndThenItsOwn) {
    EXPECT_THAT(
        tables("mqtt::SynchronizedTimeBaseMqttProxy").front(),
        ElementsAreArray(membersOf("mqtt::SynchronizedTimeBaseMqttProxy",
                                   {"onReply", "terminate", "~SynchronizedTimeBaseMqttProxy",
                                    "~SynchronizedTimeBaseMqttProxy", "startSync", "synchronize",
                                    "stop", "forceSync", "timeBase", "localTimeBase"})));
}

TEST(TheSlotsOfATimeBaseProxy, AreThoseOfItsInterfaceThroughThat) {
    std::string const own = "mqtt::SynchronizedTimeBaseMqttProxy::";
    std::string const base = "zym::common::SynchronizedTimeBaseProxy::";
    auto const all = tables("mqtt::SynchronizedTimeBaseMqttProxy");
    ASSERT_EQ(all.size(), 2U);
    EXPECT_THAT(all[1], ElementsAre(own + "timeBase", own + "~SynchronizedTimeBaseMqttProxy",
                                    own + "~SynchronizedTimeBaseMqttProxy", own + "terminate",
                                    base + "registerListener", own + "startSync",
                                    own + "synchronize", own + "stop", own + "forceSync",
                                    own + "localTimeBase", base + "notifyListener"));
}

TEST(TheSlotsOfATimeBaseAdaptor, AreTheRequestListenersAndThenItsOwn) {
    EXPECT_THAT(tables("mqtt::SynchronizedTimeBaseMqttAdaptor").front(),
                ElementsAreArray(
                    membersOf("mqtt::SynchronizedTimeBaseMqttAdaptor",
                              {"onRequest", "~SynchronizedTimeBaseMqttAdaptor",
                               "~SynchronizedTimeBaseMqttAdaptor", "timeBase", "localTimeBase"})));
}

TEST(TheSlotsOfATimeBaseAdaptor, AreThoseOfItsInterfaceThroughThat) {
    auto const all = tables("mqtt::SynchronizedTimeBaseMqttAdaptor");
    ASSERT_EQ(all.size(), 2U);
    EXPECT_THAT(all[1],
                ElementsAreArray(membersOf("mqtt::SynchronizedTimeBaseMqttAdaptor",
                                           {"timeBase", "~SynchronizedTimeBaseMqttAdaptor",
                                            "~SynchronizedTimeBaseMqttAdaptor", "localTimeBase"})));
}

TEST(TheSlotsOfATimePayload, AreThoseOfEveryPayload) {
    for (std::string const name : {"TimeSyncRequestData", "TimeSyncReplyData"}) {
        EXPECT_THAT(tables("mqtt::" + name),
                    ElementsAre(ElementsAreArray(membersOf(
                        "mqtt::" + name, {"~" + name, "~" + name, "deserialize", "serialize"}))));
    }
}

} // namespace
