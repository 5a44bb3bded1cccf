// An expiry of the proxy's timer that has begun before a stop and goes on in the next run.

#include "services/time_base_fixture.hpp"
#include "support/manual_timer.hpp"

#include <atomic>
#include <memory>
#include <utility>

namespace {

/// Where the timer's thread is about to make an exchange and wait for it.
Checkpoint beforeTheExchange;
std::atomic<int> exchanges{0};

} // namespace

// The linker replaces mqtt::RequestReplyClient::requestWait by the second function; the first is
// the replaced one. A member function is called like a function that takes the object first.

using mqtt::RequestReplyClient;
using zym::common::Uuid;
using Data = std::shared_ptr<mqtt::RequestReplyData>;

Code originalRequestWait(RequestReplyClient*, Uuid const&, Uuid const&, Data, Data,
                         conv::SecondsDuration const&) __asm__("__real_" ZYM_TEST_REQUEST_WAIT);
Code requestWaitWithCheckpoint(
    RequestReplyClient*, Uuid const&, Uuid const&, Data, Data,
    conv::SecondsDuration const&) __asm__("__wrap_" ZYM_TEST_REQUEST_WAIT);

Code requestWaitWithCheckpoint(RequestReplyClient* client, Uuid const& from, Uuid const& to,
                               Data request, Data reply, conv::SecondsDuration const& timeout) {
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

    support::Message requestTo(Uuid const& whom, std::size_t n) const {
        return awaitMessage(whom.base64URL() + "/timeSync?\?/", n);
    }
    /// Replies to the requests to the other server, up to the last sample.
    void answerOtherFrom(std::size_t n) {
        for (; n <= SAMPLES; ++n) {
            replyTo(requestTo(other, n), 1, times(now, now - 7.0));
        }
    }
    void expectTheOtherTime() {
        ASSERT_TRUE(listener.waitForCount(2));
        EXPECT_DOUBLE_EQ(proxy->offset(), 7.0);
    }

    Uuid other = support::uniqueId();
    std::unique_ptr<BlockingThread> expiry;
};

TEST_F(ALateExpiry, DoesNotPreventTheNextRun) {
    letItGo();
    requestTo(server, 11);
    ASSERT_TRUE(proxy->startSync(other));
    answerOtherFrom(1);
    expectTheOtherTime();
}

TEST_F(ALateExpiry, DoesNotComeBetweenTwoSamplesOfTheNextRun) {
    ASSERT_TRUE(proxy->startSync(other));
    auto const first = requestTo(other, 1);
    checkpoint.close();
    replyTo(first, 1, times(now, now - 7.0));
    ASSERT_TRUE(checkpoint.hasStoppedAThread());
    // No exchange is under way now; the timer's thread makes its own before the next sample.
    letItGo();
    ASSERT_TRUE(support::eventually([] { return exchanges == 1; }));
    ASSERT_TRUE(expiry->isBlocked());
    checkpoint.open();
    answerOtherFrom(2);
    expectTheOtherTime();
}

} // namespace
