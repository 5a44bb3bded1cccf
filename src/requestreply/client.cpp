// One request at a time, ended exactly once: by its reply, by the time-out reply that the timer
// publishes on the same topic, by a wait that runs out, or by being called off.
//
// - Everything about the request under way is guarded by `mutex_`, which is taken before an
//   endpoint's mutex, the MQTT client's locks or the timer's, and is never held during a call to a
//   listener.
// - Every request has an `Outcome` of its own, so that who waits for it is not confused by the next
//   one: the identifier on the wire is a clock and may come twice.
// - An expiry that the timer has decided on may come after its request's end, in the next request.
//   The time-out reply carries the moment when it is due, and is not published before.

#include "common/visitors.hpp"
#include "common/wait.hpp"
#include "mqtt/request_reply.hpp"

namespace mqtt {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using ErrorCode = RequestReply::ErrorCode;

constexpr milliseconds INITIAL_PERIOD{1000};

bool isEndless(conv::SecondsDuration const& timeout) {
    return timeout.toInt32() == conv::SecondsDuration::NO_TIMEOUT.toInt32();
}

milliseconds periodOf(conv::SecondsDuration const& timeout) {
    return seconds(static_cast<std::uint32_t>(timeout.toInt32()));
}

std::uint32_t nextRequestId() {
    auto const now = steady_clock::now().time_since_epoch();
    return static_cast<std::uint32_t>(std::chrono::duration_cast<milliseconds>(now).count());
}

void tell(std::pair<RequestReplyClient::Listener*,
                    std::shared_ptr<RequestReplyClient::Listener::Reply>> const& ending) {
    auto const& [listener, reply] = ending;
    if (listener == nullptr)
        return;
    RequestReplyData const& data = reply->data ? *reply->data : *NO_DATA;
    listener->onReply(reply->requestId, reply->name, reply->clientUuid, reply->serverUuid, data,
                      reply->error);
}

} // namespace

RequestReplyClient::RequestReplyClient(MqttClient& client, Topic const& base, Topic const& subPath,
                                       std::string const& name)
    : RequestReply(client, base, subPath, name),
      outcome_(std::make_shared<Outcome>()),
      timer_([this] { onTimer(); }, INITIAL_PERIOD, false),
      timeoutReply_(client, base),
      callers_(std::make_shared<Visitors>()) {
    outcome_->ended = true;
}

RequestReplyClient::~RequestReplyClient() {
    release();
}

void RequestReplyClient::release() noexcept {
    terminate();
    // Who waited for a request that ended just now may not have woken up yet.
    callers_->waitForOthers();
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
    if (result == ErrorCode::PENDING && requestIdOut != nullptr)
        *requestIdOut = pending_.requestId;
    return result;
}

ErrorCode RequestReplyClient::requestWait(zym::common::Uuid const& clientUuid,
                                          zym::common::Uuid const& serverUuid,
                                          std::shared_ptr<RequestReplyData> requestData,
                                          std::shared_ptr<RequestReplyData> replyData,
                                          conv::SecondsDuration const& timeout) {
    Lock lock(mutex_);
    auto const result = begin(nullptr, newRequest(clientUuid, serverUuid, std::move(requestData)),
                              std::move(replyData), conv::SecondsDuration::NO_TIMEOUT, lock);
    return result == ErrorCode::PENDING ? waitFor(outcome_, timeout, lock) : result;
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
    request.requestId = nextRequestId();
    return request;
}

ErrorCode RequestReplyClient::begin(Listener* listener, Request const& request,
                                    std::shared_ptr<RequestReplyData> replyData,
                                    conv::SecondsDuration const& timeout, Lock const& lock) {
    if (terminated_)
        return ErrorCode::CANCELLED;
    if (!idle_)
        return ErrorCode::BUSY;
    outcome_ = std::make_shared<Outcome>();
    idle_ = false;
    Reply expected(request);
    expected.data = replyData;
    pending_ = {listener,           ErrorCode::NONE,    request.requestId,   request.name,
                request.clientUuid, request.serverUuid, std::move(replyData)};
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
    {
        MqttDataBase::Lock endpointLock(replies().mutex());
        replies().value = expected;
        replies().subscriber = this;
        prepareTimeout(request, timeout);
        static_cast<void>(replies().subscribe(0, endpointLock));
    }
    if (!isEndless(timeout)) {
        std::unique_lock<std::mutex> timerLock(timer_.mutex());
        timer_.setPeriod(periodOf(timeout), timerLock);
        timer_.once = false;
        timer_.restart(timerLock);
    }
    MqttDataBase::Lock endpointLock(requests().mutex());
    requests().value = request;
    requests().publish(endpointLock);
}

void RequestReplyClient::prepareTimeout(Request const& request,
                                        conv::SecondsDuration const& timeout) {
    MqttDataBase::Lock const lock(timeoutReply_.mutex());
    timeoutReply_.value = Reply(request);
    timeoutReply_.value.data = NO_DATA;
    timeoutReply_.value.error = ErrorCode::TIMEOUT;
    due_ = timeout.toTimepoint(steady_clock::now());
}

void RequestReplyClient::onTimer() {
    MqttDataBase::Lock lock(timeoutReply_.mutex());
    if (steady_clock::now() >= due_)
        timeoutReply_.publish(lock);
}

void RequestReplyClient::onMqttData(Reply const& reply, bool empty, int /*id*/) {
    if (empty)
        return;
    Ending ending{};
    {
        Lock const lock(mutex_);
        if (!idle_ && reply.requestId == pending_.requestId)
            ending = endRequest(pending_, reply.error, reply.data, lock);
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
    outcome_->error = error;
    outcome_->ended = true;
    auto const reply = std::make_shared<Listener::Reply>(Listener::Reply{
        error, pending.requestId, pending.name, pending.clientUuid, pending.serverUuid, data});
    Ending ending(pending.listener, reply);
    pending.listener = nullptr;
    replies().unsubscribe();
    timer_.stop();
    ended_.notify_all();
    return ending;
}

RequestReplyClient::Ending RequestReplyClient::endRequest(Notification& pending, ErrorCode error,
                                                          Lock const& lock) {
    return endRequest(pending, error, NO_DATA, lock);
}

ErrorCode RequestReplyClient::waitEndOfRequest(conv::SecondsDuration const& timeout) {
    Lock lock(mutex_);
    return waitFor(outcome_, timeout, lock);
}

/// The deadline counts first: a request that ends in the same instant is a time-out to the one who
/// waited, whatever its listener was told.
ErrorCode RequestReplyClient::waitFor(std::shared_ptr<Outcome> const& awaited,
                                      conv::SecondsDuration const& timeout, Lock& lock) {
    // `awaited` is the member, which the next request replaces.
    // NOLINTNEXTLINE(performance-unnecessary-copy-initialization)
    auto const outcome = awaited;
    Visitors::Visit const visit(callers_);
    auto const deadline = timeout.toTimepoint(steady_clock::now());
    Ending ending{};
    bool late = false;
    ++outcome->waiters;
    while (!outcome->ended && !late) {
        waitSlice(ended_, lock, deadline);
        late = steady_clock::now() >= deadline;
    }
    --outcome->waiters;
    // One that has ended belongs to those who wait for it still, or is not the last one any more.
    if (late && !outcome->ended)
        ending = endRequest(pending_, ErrorCode::TIMEOUT, lock);
    auto const result = late ? ErrorCode::TIMEOUT : outcome->error;
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
    if (idle_)
        return Ending{};
    auto const outcome = outcome_;
    auto ending = endRequest(pending_, ErrorCode::CANCELLED, lock);
    waiterLeft_.wait(lock, [&] { return outcome->waiters == 0; });
    return ending;
}

void RequestReplyClient::terminate() {
    if (terminated_)
        return;
    Visitors::Visit const visit(callers_);
    Lock lock(mutex_);
    if (terminated_.exchange(true))
        return;
    auto const ending = callOff(lock);
    lock.unlock();
    timer_.terminate();
    // From here on this object may be destroyed, by the listener too.
    tell(ending);
}

} // namespace mqtt
