// Request client and server with the stand-in for the broker library, which sends no message back:
// like a broker that denies the topics without an error. The timer expires when the test says so.

#include "client/client_on_a_script.hpp"
#include "requestreply/server_fixture.hpp"
#include "support/allocations.hpp"
#include "support/manual_timer.hpp"

namespace {

using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using zym::common::Uuid;
using Error = mqtt::MqttClient::Error;
using Operation = support::StandIn::Operation;

class ARequestOnAScript : public AClientOnAScript {
protected:
    ARequestOnAScript() {
        manual_timer::reset();
        connect();
    }
    ~ARequestOnAScript() override { manual_timer::reset(); }

    Code request(mqtt::RequestReplyClient::Listener* listener,
                 conv::SecondsDuration const& timeout = LONG_TIMEOUT_S) {
        return client.request(listener, id, id, nullptr, replyData, nullptr, timeout);
    }

    Uuid id = mqtt::test::uniqueId();
    std::shared_ptr<NumberData> replyData = std::make_shared<NumberData>();
    ReplyRecorder recorder;
    mqtt::RequestReplyClient client{*client_, "svc", "a-sub-path-of-some-length", "sync"};
};

TEST_F(ARequestOnAScript, IsSentAfterTheSubscriptionToItsReply) {
    ASSERT_EQ(request(nullptr), Code::PENDING);
    auto const calls = script_->calls();
    ASSERT_THAT(calls, SizeIs(testing::Ge(2)));
    EXPECT_EQ(calls[calls.size() - 2].operation, Operation::SUBSCRIBE);
    EXPECT_EQ(calls.back().operation, Operation::PUBLISH);
}

using ADeniedRequest = ARequestOnAScript;

TEST_F(ADeniedRequest, EndsAfterTwoTimeOutRepliesThatDoNotComeBack) {
    ASSERT_EQ(request(&recorder, 0), Code::PENDING);
    manual_timer::expire();
    EXPECT_EQ(manual_timer::record().period, seconds(1));
    EXPECT_TRUE(manual_timer::record().armed);
    manual_timer::expire();
    EXPECT_EQ(request(nullptr), Code::BUSY) << "the second time-out reply may still come back";
    manual_timer::expire();
    manual_timer::expire();
    ASSERT_THAT(recorder.calls(), SizeIs(1));
    EXPECT_EQ(recorder.calls()[0].error, Code::TIMEOUT);
    EXPECT_EQ(recorder.calls()[0].data, replyData.get());
    EXPECT_EQ(recorder.calls()[0].thread, std::this_thread::get_id());
    EXPECT_FALSE(manual_timer::record().armed);
    EXPECT_EQ(request(nullptr), Code::PENDING);
}

TEST_F(ADeniedRequest, StaysPendingWhileThereIsNoConnection) {
    ASSERT_EQ(request(&recorder, 0), Code::PENDING);
    manual_timer::expire();
    manual_timer::expire();
    ASSERT_EQ(client_->disconnect(WAIT_SECONDS), Error::SUCCESS);
    manual_timer::expire();
    EXPECT_THAT(recorder.calls(), IsEmpty());
    connect();
    manual_timer::expire();
    EXPECT_THAT(recorder.errors(), ElementsAre(Code::TIMEOUT));
}

/// Counts without allocating memory.
class EndCounter : public mqtt::RequestReplyClient::Listener {
public:
    virtual ~EndCounter() = default;
    void onReply(unsigned int, std::string const&, Uuid const&, Uuid const&,
                 mqtt::RequestReplyData const&, Code) override {
        ++count;
    }
    unsigned count = 0;
};

using ARequestWithoutMemory = ARequestOnAScript;

/// The listener is called also when the topic cannot be unsubscribed.
TEST_F(ARequestWithoutMemory, EndsOnceNevertheless) {
    EndCounter ends;
    for (unsigned which = 1; which <= 5; ++which) {
        ASSERT_EQ(request(&ends), Code::PENDING);
        {
            support::FailingAllocation const failing(which);
            EXPECT_EQ(client.cancel(), Code::SUCCESS);
        }
        EXPECT_EQ(ends.count, which);
    }
    ASSERT_EQ(request(&ends), Code::PENDING);
    client.cancel();
    EXPECT_EQ(script_->count(Operation::SUBSCRIBE), 6U);
    EXPECT_EQ(script_->count(Operation::UNSUBSCRIBE), 6U) << "none remains";
}

class TheSubscriptionsOfAServer : public AClientOnAScript {};

TEST_F(TheSubscriptionsOfAServer, HaveAWildcardForTheClientAndEndWithTheServer) {
    connect();
    ServerListener listener;
    auto server = std::make_unique<mqtt::RequestReplyServer>(*client_, "svc", mqtt::Topic(), "n");
    EXPECT_THAT(topics(Operation::SUBSCRIBE), IsEmpty()) << "before it subscribes";
    for (auto const& id : {Uuid(), Uuid(7), Uuid(7)}) {
        ASSERT_EQ(server->subscribe(&listener, id, nullptr), Error::SUCCESS);
    }
    auto const withIdentifier = "svc/" + Uuid(7).base64URL() + "/n?\?/+";
    EXPECT_THAT(topics(Operation::SUBSCRIBE), testing::Contains("svc/n?\?/+"));
    EXPECT_EQ(topics(Operation::SUBSCRIBE).back(), withIdentifier);
    server.reset();
    EXPECT_THAT(topics(Operation::UNSUBSCRIBE),
                testing::UnorderedElementsAre("svc/n?\?/+", withIdentifier));
}

} // namespace
