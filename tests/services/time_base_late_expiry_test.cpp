// An expiry of the proxy's timer that has begun before a stop and goes on in the next run.

#include "requestreply/blocking_thread.hpp"
#include "services/time_base_fixture.hpp"
#include "support/manual_timer.hpp"

#include <atomic>
#include <memory>
#include <utility>
#include <vector>

namespace {

/// Where the timer's thread is about to make an exchange and wait for it.
Checkpoint beforeTheExchange;
std::atomic<int> exchanges{0};

} // namespace

// The linker replaces mqtt::RequestReplyClient::requestWait by the second function; the first is
// the replaced one. A member function is called like a function that takes the object first.

Code originalRequestWait(mqtt::RequestReplyClient*, zym::common::Uuid const&,
                         zym::common::Uuid const&, std::shared_ptr<mqtt::RequestReplyData>,
                         std::shared_ptr<mqtt::RequestReplyData>,
                         conv::SecondsDuration const&) __asm__("__real_" ZYM_TEST_REQUEST_WAIT);

Code requestWaitWithCheckpoint(
    mqtt::RequestReplyClient*, zym::common::Uuid const&, zym::common::Uuid const&,
    std::shared_ptr<mqtt::RequestReplyData>, std::shared_ptr<mqtt::RequestReplyData>,
    conv::SecondsDuration const&) __asm__("__wrap_" ZYM_TEST_REQUEST_WAIT);

Code requestWaitWithCheckpoint(mqtt::RequestReplyClient* client, zym::common::Uuid const& from,
                               zym::common::Uuid const& to,
                               std::shared_ptr<mqtt::RequestReplyData> request,
                               std::shared_ptr<mqtt::RequestReplyData> reply,
                               conv::SecondsDuration const& timeout) {
    beforeTheExchange.pass();
    ++exchanges;
    return originalRequestWait(client, from, to, std::move(request), std::move(reply), timeout);
}

namespace {

class ALateExpiry : public TimeBaseOnABroker {
protected:
    ALateExpiry() {
        synchronize(5.0);
        exchanges = 0;
        beforeTheExchange.close();
        expiry = std::make_unique<BlockingThread>([] { manual_timer::expire(); });
        EXPECT_TRUE(beforeTheExchange.hasStoppedAThread());
        proxy->stop();
    }
    ~ALateExpiry() override {
        letItGo();
        proxy->terminate();
        // The end of a hand-driven timer does not wait for its callback.
        expiry.reset();
        proxy.reset();
    }

    void letItGo() { beforeTheExchange.open(); }

    std::vector<support::Message> requestsTo(Uuid const& whom) {
        std::vector<support::Message> result;
        for (auto const& request : requestsIn(peer.messages())) {
            if (request.topic.find(whom.base64URL()) != std::string::npos) {
                result.push_back(request);
            }
        }
        return result;
    }
    support::Message requestTo(Uuid const& whom, std::size_t n) {
        EXPECT_TRUE(support::eventually([&] { return requestsTo(whom).size() >= n; }));
        return requestsTo(whom).at(n - 1);
    }
    void answerTo(Uuid const& whom, std::size_t n, double sample) {
        auto const question = requestTo(whom, n);
        peer.publish(replyTopicFor(question.topic),
                     replyText(idIn(question.payload), 1, times(now, now - sample)));
    }

    Uuid other = support::uniqueId();
    std::unique_ptr<BlockingThread> expiry;
};

TEST_F(ALateExpiry, DoesNotPreventTheNextRun) {
    letItGo();
    requestTo(server, 11);
    ASSERT_TRUE(proxy->startSync(other));
    for (std::size_t n = 1; n <= SAMPLES; ++n) {
        answerTo(other, n, 7.0);
    }
    ASSERT_TRUE(listener.waitForCalls(2));
    EXPECT_DOUBLE_EQ(proxy->offset(), 7.0);
}

TEST_F(ALateExpiry, DoesNotComeBetweenTwoSamplesOfTheNextRun) {
    ASSERT_TRUE(proxy->startSync(other));
    requestTo(other, 1);
    checkpoint.close();
    answerTo(other, 1, 7.0);
    ASSERT_TRUE(checkpoint.hasStoppedAThread());
    // No exchange is under way now; the timer's thread makes its own before the next sample.
    letItGo();
    ASSERT_TRUE(support::eventually([] { return exchanges == 1; }));
    ASSERT_TRUE(expiry->isBlocked());
    checkpoint.open();
    for (std::size_t n = 2; n <= SAMPLES; ++n) {
        answerTo(other, n, 7.0);
    }
    ASSERT_TRUE(listener.waitForCalls(2));
    EXPECT_DOUBLE_EQ(proxy->offset(), 7.0);
}

} // namespace
