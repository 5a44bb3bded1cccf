// One request at a time, ended exactly once: by its reply, by the time-out reply that the timer
// publishes on the same topic, by the timer itself when that reply does not come back, by a wait
// that runs out, or by being called off.
//
// - Everything about the request under way is guarded by `mutex_`, which is taken before an
//   endpoint's mutex, the MQTT client's locks or the timer's, and is never held during a call to a
//   listener.
// - Every request has an identifier and an object of its own that its reply is read into. A reply
//   ends a request only when both are those of the request: a late reply to an earlier request, or
//   a second one, ends nothing.
// - Every request has an `Outcome` of its own, so that a thread that waits for it is not confused
//   by the next one.
// - The timer may decide on an expiry and run it after the request's end, in the next request. So
//   each request notes the moment when its time is over, and an expiry before that does nothing.

#include "common/no_timeout.hpp"
#include "common/user_call.hpp"
#include "common/visitors.hpp"
#include "common/wait.hpp"
#include "mqtt/request_reply.hpp"

#include <algorithm>
#include <atomic>

namespace mqtt {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using ErrorCode = RequestReply::ErrorCode;

constexpr milliseconds INITIAL_PERIOD{1000};
/// Between a time-out reply that does not come back and what follows it.
constexpr milliseconds RETRY_PERIOD{1000};
constexpr int MAX_TIMEOUT_REPLIES = 2;

bool isEndless(conv::SecondsDuration const& timeout) {
    return timeout.toInt32() == NO_TIMEOUT.toInt32();
}

milliseconds periodOf(conv::SecondsDuration const& timeout) {
    return seconds(static_cast<std::uint32_t>(timeout.toInt32()));
}

std::int64_t steadyMilliseconds() {
    auto const now = steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<milliseconds>(now).count();
}

/// The clock, and never the same twice in this process: it tells the replies to requests apart,
/// also to those of a client that is gone, whose reply topic the next one may have.
std::uint32_t nextRequestId() {
    static std::atomic<std::int64_t> last{0};
    auto before = last.load();
    std::int64_t next = 0;
    do {
        next = std::max(steadyMilliseconds(), before + 1);
    } while (!last.compare_exchange_weak(before, next));
    return static_cast<std::uint32_t>(next);
}

/// What the reply to one request is read into. It passes on the payload of that reply only: a
/// second reply to the last request must not leave its payload in the answer to this one.
class ExpectedReply final : public RequestReplyData {
public:
    ExpectedReply(std::uint32_t requestId, std::shared_ptr<RequestReplyData> payload)
        : requestId_(requestId), payload_(std::move(payload)) {}

    void deserialize(zym::common::lwjson::Deserializer& in) override {
        unsigned int requestId = 0;
        zym::common::lwjson::Deserializer::extractValue(in.getMember("$reqId"), requestId, "");
        if (requestId == requestId_ && payload_) {
            payload_->deserialize(in);
        }
    }
    void serialize(zym::common::lwjson::Serializer& /*out*/) const override {}

private:
    std::uint32_t const requestId_;
    std::shared_ptr<RequestReplyData> const payload_;
};

void tell(std::pair<RequestReplyClient::Listener*,
                    std::shared_ptr<RequestReplyClient::Listener::Reply>> const& ending) {
    auto const& [listener, reply] = ending;
    if (listener == nullptr) {
        return;
    }
    RequestReplyData const& data = reply->data ? *reply->data : *NO_DATA;
    callUser([&listener = listener, &reply = reply, &data] {
        listener->onReply(reply->requestId, reply->name, reply->clientUuid, reply->serverUuid, data,
                          reply->error);
    });
}

} // namespace

RequestReplyClient::RequestReplyClient(MqttClient& client, Topic const& base, Topic const& subPath,
                                       std::string const& name)
    : RequestReply(client, base, subPath, name),
      outcome_(std::make_shared<Outcome>()),
      timer_([this] { onTimer(); }, INITIAL_PERIOD, false),
      timeoutReply_(client, base),
      callers_(std::make_shared<Visitors>()),
      mqtt_(client) {
    outcome_->ended = true;
}

RequestReplyClient::~RequestReplyClient() {
    release();
}

void RequestReplyClient::release() noexcept {
    terminate();
    // A thread that waits for a request that ended just now may not have woken up yet.
    callers_->waitForOthers();
    if (timerHasTold_) {
        timer_.terminate();
    }
    replies().release();
}

ErrorCode RequestReplyClient::request(Listener* listener, zym::common::Uuid const& clientUuid,
                                      zym::common::Uuid const& serverUuid,
                                      std::shared_ptr<RequestReplyData> requestData,
                                      std::shared_ptr<RequestReplyData> replyData,
                                      unsigned int* requestIdOut,
                                      conv::SecondsDuration const& timeout) {
    Lock const lock(mutex_);
    auto const result = begin(listener, newRequest(clientUuid, serverUuid, std::move(requestData)),
                              std::move(replyData), timeout, lock);
    if (result == ErrorCode::PENDING && requestIdOut != nullptr) {
        *requestIdOut = pending_.requestId;
    }
    return result;
}

ErrorCode RequestReplyClient::requestWait(zym::common::Uuid const& clientUuid,
                                          zym::common::Uuid const& serverUuid,
                                          std::shared_ptr<RequestReplyData> requestData,
                                          std::shared_ptr<RequestReplyData> replyData,
                                          conv::SecondsDuration const& timeout) {
    Lock lock(mutex_);
    auto const result = begin(nullptr, newRequest(clientUuid, serverUuid, std::move(requestData)),
                              std::move(replyData), NO_TIMEOUT, lock);
    return result == ErrorCode::PENDING ? waitFor(timeout, lock) : result;
}

RequestReply::Request RequestReplyClient::newRequest(zym::common::Uuid const& clientUuid,
                                                     zym::common::Uuid const& serverUuid,
                                                     std::shared_ptr<RequestReplyData> data) const {
    Request request;
    request.topic = topic();
    request.name = name();
    request.clientUuid = clientUuid;
    request.serverUuid = serverUuid;
    request.data = std::move(data);
    return request;
}

ErrorCode RequestReplyClient::begin(Listener* listener, Request request,
                                    std::shared_ptr<RequestReplyData> replyData,
                                    conv::SecondsDuration const& timeout, Lock const& lock) {
    if (terminated_) {
        return ErrorCode::CANCELLED;
    }
    if (!idle_) {
        return ErrorCode::BUSY;
    }
    // What needs memory comes before the client is busy.
    request.requestId = nextRequestId();
    Reply expected(request);
    expected.data = std::make_shared<ExpectedReply>(request.requestId, replyData);
    auto outcome = std::make_shared<Outcome>();
    outcome->reply = {ErrorCode::NONE,    request.requestId,  request.name,
                      request.clientUuid, request.serverUuid, nullptr};
    Notification pending{listener,           ErrorCode::NONE,    request.requestId,   request.name,
                         request.clientUuid, request.serverUuid, std::move(replyData)};
    pending_ = std::move(pending);
    outcome_ = std::move(outcome);
    expected_ = expected.data;
    refused_ = false;
    timeoutReplies_ = 0;
    idle_ = false;
    try {
        send(request, expected, timeout);
    } catch (...) {
        // A payload that cannot be written, or no thread for the timer: nothing has left.
        static_cast<void>(endRequest(pending_, ErrorCode::NONE, lock));
        throw;
    }
    return ErrorCode::PENDING;
}

/// Subscription and timer are in place before the request leaves: no reply can be too fast.
void RequestReplyClient::send(Request const& request, Reply const& expected,
                              conv::SecondsDuration const& timeout) {
    endLeftSubscription();
    prepareTimeout(request);
    due_ = timeout.toTimepoint(steady_clock::now());
    {
        MqttDataBase::Lock endpointLock(replies().mutex());
        replies().value = expected;
        replies().subscriber = this;
        refused_ = replies().subscribe(0, endpointLock) != MqttClient::Error::SUCCESS;
    }
    if (!isEndless(timeout)) {
        armTimer(periodOf(timeout));
    }
    MqttDataBase::Lock endpointLock(requests().mutex());
    requests().value = request;
    refused_ = requests().send(false, endpointLock) != MqttClient::Error::SUCCESS || refused_;
}

/// That of an earlier request, which could not be ended for lack of memory.
void RequestReplyClient::endLeftSubscription() {
    if (!subscriptionLeft_) {
        return;
    }
    MqttDataBase::Lock lock(replies().mutex());
    replies().MqttDataBase::unsubscribe(lock);
    subscriptionLeft_ = false;
}

void RequestReplyClient::prepareTimeout(Request const& request) {
    MqttDataBase::Lock const lock(timeoutReply_.mutex());
    timeoutReply_.value = Reply(request);
    timeoutReply_.value.data = NO_DATA;
    timeoutReply_.value.error = ErrorCode::TIMEOUT;
}

void RequestReplyClient::armTimer(milliseconds period) {
    std::unique_lock<std::mutex> lock(timer_.mutex());
    timer_.setPeriod(period, lock);
    timer_.once = false;
    timer_.restart(lock);
}

void RequestReplyClient::onTimer() {
    Ending ending{};
    {
        Lock const lock(mutex_);
        timerThread_ = std::this_thread::get_id();
        if (idle_ || steady_clock::now() < due_) {
            return;
        }
        try {
            ending = timeOut(lock);
        } catch (...) {
            // No memory for the time-out reply: the next expiry publishes it.
            return;
        }
        timerHasTold_ = timerHasTold_ || ending.first != nullptr;
    }
    // From here on this object may be destroyed, by the listener too.
    tell(ending);
}

/// What an expiry does when the request's time has run out. Without a connection it leaves one
/// time-out reply in the queue, and the request pending.
RequestReplyClient::Ending RequestReplyClient::timeOut(Lock const& lock) {
    bool const connected = mqtt_.communicationState() == conv::ComState::CONNECTED;
    if (refused_ || (connected && timeoutReplies_ >= MAX_TIMEOUT_REPLIES)) {
        return endRequest(pending_, ErrorCode::TIMEOUT, pending_.data, lock);
    }
    if (timeoutReplies_ == 0) {
        armTimer(RETRY_PERIOD);
    }
    if (connected || timeoutReplies_ == 0) {
        timeoutReply_.publish();
        ++timeoutReplies_;
    }
    return {};
}

void RequestReplyClient::onMqttData(Reply const& reply, bool empty, int /*id*/) {
    if (empty) {
        return;
    }
    Ending ending{};
    {
        Lock const lock(mutex_);
        if (!idle_ && reply.requestId == pending_.requestId && reply.data == expected_) {
            ending = endRequest(pending_, reply.error, pending_.data, lock);
        }
    }
    // From here on this object may be destroyed, by the listener too.
    tell(ending);
}

RequestReplyClient::Ending
RequestReplyClient::endRequest(Notification& pending, ErrorCode error,
                               std::shared_ptr<RequestReplyData> const& data,
                               Lock const& /*lock*/) {
    pending.error = error;
    idle_ = true;
    outcome_->ended = true;
    outcome_->reply.error = error;
    outcome_->reply.data = data;
    Ending ending(pending.listener, {outcome_, &outcome_->reply});
    pending.listener = nullptr;
    stopListening();
    timer_.stop();
    ended_.notify_all();
    return ending;
}

RequestReplyClient::Ending RequestReplyClient::endRequest(Notification& pending, ErrorCode error,
                                                          Lock const& lock) {
    return endRequest(pending, error, NO_DATA, lock);
}

/// The application has its payload object back: nothing is read into it any more.
void RequestReplyClient::stopListening() noexcept {
    expected_ = nullptr;
    try {
        MqttDataBase::Lock endpointLock(replies().mutex());
        replies().value.data = nullptr;
        replies().subscriber = nullptr;
        replies().MqttDataBase::unsubscribe(endpointLock);
    } catch (...) {
        // No memory for the topic. The subscription stays until the next request; what arrives
        // meanwhile finds no subscriber.
        subscriptionLeft_ = true;
    }
}

ErrorCode RequestReplyClient::waitEndOfRequest(conv::SecondsDuration const& timeout) {
    Lock lock(mutex_);
    return waitFor(timeout, lock);
}

ErrorCode RequestReplyClient::waitEndOfRequest(unsigned int requestId,
                                               conv::SecondsDuration const& timeout) {
    Lock lock(mutex_);
    return requestId == pending_.requestId ? waitFor(timeout, lock) : ErrorCode::CANCELLED;
}

/// The deadline counts first: a request that ends in the same instant is a time-out to the thread
/// that waited, whatever its listener was told, and to those who ask later. Another thread that
/// still has time hears what the reply said.
ErrorCode RequestReplyClient::waitFor(conv::SecondsDuration const& timeout, Lock& lock) {
    auto const outcome = outcome_;
    if (outcome->ended) {
        return pending_.error;
    }
    Visitors::Visit const visit(callers_);
    auto const deadline = timeout.toTimepoint(steady_clock::now());
    // The worker would have to read the reply that it waits for, and the timer to end a request
    // with a time-out.
    bool const timed = due_ != steady_clock::time_point::max();
    bool late = mqtt_.onWorkerThread() || (timed && std::this_thread::get_id() == timerThread_);
    ++outcome->waiters;
    while (!outcome->ended && !late) {
        waitSlice(ended_, lock, deadline);
        late = steady_clock::now() >= deadline;
    }
    --outcome->waiters;
    Ending ending{};
    if (late && !outcome->ended) {
        ending = endRequest(pending_, ErrorCode::TIMEOUT, lock);
    } else if (late && outcome == outcome_) {
        pending_.error = ErrorCode::TIMEOUT;
    }
    auto const result = late ? ErrorCode::TIMEOUT : outcome->reply.error;
    waiterLeft_.notify_all();
    lock.unlock();
    // From here on this object may be destroyed, by the listener too.
    tell(ending);
    return result;
}

ErrorCode RequestReplyClient::cancel() {
    Visitors::Visit const visit(callers_);
    Lock lock(mutex_);
    auto const ending = callOff(lock);
    lock.unlock();
    // From here on this object may be destroyed, by the listener too.
    tell(ending);
    return ErrorCode::SUCCESS;
}

RequestReplyClient::Ending RequestReplyClient::callOff(Lock& lock) {
    if (idle_) {
        return Ending{};
    }
    auto const outcome = outcome_;
    auto ending = endRequest(pending_, ErrorCode::CANCELLED, lock);
    waiterLeft_.wait(lock, [&] { return outcome->waiters == 0; });
    return ending;
}

void RequestReplyClient::terminate() {
    if (terminated_) {
        return;
    }
    Visitors::Visit const visit(callers_);
    Lock lock(mutex_);
    if (terminated_.exchange(true)) {
        return;
    }
    auto const ending = callOff(lock);
    bool const timerIsQuiet = !timerHasTold_;
    lock.unlock();
    // Its thread may be inside a listener that destroys this object, and waits for us.
    if (timerIsQuiet) {
        timer_.terminate();
    }
    // From here on this object may be destroyed, by the listener too.
    tell(ending);
}

} // namespace mqtt
