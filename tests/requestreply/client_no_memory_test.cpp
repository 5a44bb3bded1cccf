#include "requestreply/client_fixture.hpp"
#include "support/allocations.hpp"
#include "support/stand_in/stand_in.hpp"

namespace {

using Operation = support::StandIn::Operation;

/// Counts without allocating memory.
class EndCounter : public mqtt::RequestReplyClient::Listener {
public:
    virtual ~EndCounter() = default;
    void onReply(unsigned int, std::string const&, zym::common::Uuid const&,
                 zym::common::Uuid const&, mqtt::RequestReplyData const&, Code) override {
        ++count;
    }
    unsigned count = 0;
};

class ARequestWithoutMemory : public testing::Test {
protected:
    EndCounter ends;
    zym::common::Uuid id = support::uniqueId();
    std::unique_ptr<mqtt::MqttClient> mqtt = support::testClient("host", 1883);
    std::shared_ptr<support::StandIn> standIn = support::StandIn::last();
    mqtt::RequestReplyClient client{*mqtt, "svc", "a-sub-path-of-some-length", "sync"};
};

/// The listener is called also when the topic cannot be unsubscribed.
TEST_F(ARequestWithoutMemory, EndsOnceNevertheless) {
    for (unsigned which = 1; which <= 5; ++which) {
        ASSERT_EQ(client.request(&ends, id, id, nullptr, nullptr, nullptr, LONG_TIMEOUT_S),
                  Code::PENDING);
        {
            support::FailingAllocation const failing(which);
            EXPECT_EQ(client.cancel(), Code::SUCCESS);
        }
        EXPECT_EQ(ends.count, which);
    }
    ASSERT_EQ(client.request(&ends, id, id, nullptr, nullptr, nullptr, LONG_TIMEOUT_S),
              Code::PENDING);
    client.cancel();
    EXPECT_EQ(standIn->count(Operation::SUBSCRIBE), 6U);
    EXPECT_EQ(standIn->count(Operation::UNSUBSCRIBE), 6U) << "none remains";
}

} // namespace
