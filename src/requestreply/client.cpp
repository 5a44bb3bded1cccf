// One request at a time, ended exactly once: by its reply, by the time-out reply that the timer
// publishes on the same topic, by the timer itself when that reply does not come back, by a wait
// whose time has run out, or by `cancel`.
//
// - `mutex_` guards everything about the request under way. It is taken before an endpoint's mutex,
//   the MQTT client's locks or the timer's, and is never held while a listener is called.
// - Every request has an identifier, and an object of its own that its reply is read into. A reply
//   ends a request only when both match: a late reply to an earlier request, or a second one, ends
//   nothing.
// - Every request has an `Exchange` of its own: a thread that wakes up when the next request is
//   under way still finds the outcome of the one that it waited for.
// - The timer may decide on an expiry in one request and run it in the next. So each request notes
//   when its time is over, and an earlier expiry does nothing.

#include "common/active_calls.hpp"
#include "common/application_call.hpp"
#include "common/arm_timer.hpp"
#include "common/endpoint_report.hpp"
#include "common/wait.hpp"
#include "mqtt/request_reply.hpp"
#include "requestreply/request_identity.hpp"

namespace mqtt {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using ErrorCode = RequestReply::ErrorCode;

constexpr milliseconds INITIAL_PERIOD{1000};
/// Between a time-out reply that does not come back and the next action.
constexpr milliseconds RETRY_PERIOD{1000};

bool isEndless(conv::SecondsDuration const& timeout) {
    return timeout.toInt32() == NO_TIMEOUT.toInt32();
}

milliseconds periodOf(conv::SecondsDuration const& timeout) {
    return seconds(static_cast<std::uint32_t>(timeout.toInt32()));
}

/// What the next expiry of the timer does, once the request's time is over. PUBLISH, PUBLISH_AGAIN
/// and END follow one another; the last two need a connection, and without one change nothing.
enum class Expiry : std::uint8_t {
    PUBLISH,       ///< publishes the time-out reply, with or without a connection
    PUBLISH_AGAIN, ///< publishes it once more: the first one has not come back
    END,           ///< ends the request
    END_REFUSED    ///< ends it also without a connection: one of its topics was refused at once
};

} // namespace

/// One request, for the threads that end it and wait for it. Made before the request is sent: its
/// end needs no memory.
struct RequestReplyClient::Exchange {
    Listener::Reply reply;                      ///< what the listener is called with
    std::shared_ptr<RequestReplyData> expected; ///< only a reply to this request is read into it
    steady_clock::time_point due;               ///< the end of its time
    Expiry nextExpiry = Expiry::PUBLISH;
    bool ended = false;
    int waiters = 0;
};

/// Calls the listener of an ended request at the end of its own scope. Declare it before the lock
/// on `mutex_`, which is then released by that time. The listener may destroy the client.
struct RequestReplyClient::ListenerCall {
    ListenerCall() = default;
    ~ListenerCall() {
        if (listener == nullptr) {
            return;
        }
        auto const& reply = exchange->reply;
        RequestReplyData const& data = reply.data ? *reply.data : *NO_DATA;
        callApplication(
            [&] {
                listener->onReply(reply.requestId, reply.name, reply.clientUuid, reply.serverUuid,
                                  data, reply.error);
            },
            "Listener of a request of ", reply.name);
    }
    ListenerCall(ListenerCall const&) = delete;
    ListenerCall& operator=(ListenerCall const&) = delete;

    Listener* listener = nullptr;
    std::shared_ptr<Exchange const> exchange;
};

RequestReplyClient::RequestReplyClient(MqttClient& client, Topic const& base, Topic const& subPath,
                                       std::string const& name)
    : RequestReply(client, base, subPath, name),
      timer_([this] { onTimer(); }, INITIAL_PERIOD, false),
      timeoutReply_(client, base),
      exchange_(std::make_shared<Exchange>()),
      calls_(std::make_shared<ActiveCalls>()),
      mqtt_(client) {
    exchange_->ended = true;
}

RequestReplyClient::~RequestReplyClient() {
    release();
}

void RequestReplyClient::release() noexcept {
    terminate();
    // A thread that waits for a request that ended just now may not have woken up yet.
    calls_->waitForOthers();
    if (timerHasCalledListener_) {
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
    MutexLock const lock(mutex_);
    auto const result = begin(listener, newRequest(clientUuid, serverUuid, std::move(requestData)),
                              std::move(replyData), timeout);
    if (result == ErrorCode::PENDING && requestIdOut != nullptr) {
        *requestIdOut = pending_.reply.requestId;
    }
    return result;
}

ErrorCode RequestReplyClient::requestWait(zym::common::Uuid const& clientUuid,
                                          zym::common::Uuid const& serverUuid,
                                          std::shared_ptr<RequestReplyData> requestData,
                                          std::shared_ptr<RequestReplyData> replyData,
                                          conv::SecondsDuration const& timeout) {
    ActiveCalls::Call const call(calls_);
    ListenerCall listenerCall;
    MutexLock lock(mutex_);
    auto const result = begin(nullptr, newRequest(clientUuid, serverUuid, std::move(requestData)),
                              std::move(replyData), NO_TIMEOUT);
    return result == ErrorCode::PENDING ? waitFor(timeout, listenerCall, lock) : result;
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
                                    conv::SecondsDuration const& timeout) {
    if (terminated_) {
        return ErrorCode::CANCELLED;
    }
    if (!idle_) {
        return ErrorCode::BUSY;
    }
    request.requestId = nextRequestId();
    // What needs memory comes before the client is busy.
    Reply expected(request);
    expected.data = std::make_shared<ExpectedReply>(request.requestId, replyData);
    Notification pending{listener,
                         {ErrorCode::NONE, request.requestId, request.name, request.clientUuid,
                          request.serverUuid, std::move(replyData)}};
    auto exchange = std::make_shared<Exchange>();
    exchange->reply = pending.reply;
    exchange->expected = expected.data;
    pending_ = std::move(pending);
    exchange_ = std::move(exchange);
    idle_ = false;
    try {
        send(request, expected, timeout);
    } catch (...) {
        // A payload that cannot be written, or no thread for the timer: nothing has been sent.
        pending_.listener = nullptr;
        ListenerCall none;
        endRequest(ErrorCode::NONE, NO_DATA, none);
        throw;
    }
    mqtt_.endpointReport().requestMade();
    return ErrorCode::PENDING;
}

/// Subscription and timer are in place before the request is sent: no reply can be too fast.
void RequestReplyClient::send(Request const& request, Reply const& expected,
                              conv::SecondsDuration const& timeout) {
    endOldSubscription();
    prepareTimeoutReply(request);
    exchange_->due = timeout.toTimepoint(steady_clock::now());
    bool refused = false;
    {
        MqttDataBase::Lock endpointLock(replies().mutex());
        replies().value = expected;
        replies().subscriber = this;
        refused = replies().subscribe(0, endpointLock) != MqttClient::Error::SUCCESS;
    }
    if (!isEndless(timeout)) {
        armTimer(timer_, periodOf(timeout), false);
    }
    MqttDataBase::Lock endpointLock(requests().mutex());
    requests().value = request;
    refused = requests().send(false, endpointLock) != MqttClient::Error::SUCCESS || refused;
    if (refused) {
        exchange_->nextExpiry = Expiry::END_REFUSED;
    }
}

/// That of an earlier request, which could not be ended for lack of memory.
void RequestReplyClient::endOldSubscription() {
    if (hasOldSubscription_) {
        MqttDataBase::Lock lock(replies().mutex());
        replies().MqttDataBase::unsubscribe(lock);
        hasOldSubscription_ = false;
    }
}

void RequestReplyClient::prepareTimeoutReply(Request const& request) {
    MqttDataBase::Lock const lock(timeoutReply_.mutex());
    timeoutReply_.value = Reply(request);
    timeoutReply_.value.data = NO_DATA;
    timeoutReply_.value.error = ErrorCode::TIMEOUT;
}

void RequestReplyClient::onTimer() {
    ListenerCall listenerCall;
    MutexLock const lock(mutex_);
    timerThread_ = std::this_thread::get_id();
    if (idle_ || steady_clock::now() < exchange_->due) {
        return;
    }
    try {
        handleTimeout(listenerCall);
    } catch (...) {
        // No memory for the time-out reply: the next expiry publishes it.
    }
    timerHasCalledListener_ = timerHasCalledListener_ || listenerCall.listener != nullptr;
}

/// What an expiry does when the request's time is over. Without a connection it leaves one time-out
/// reply in the queue, and the request pending.
void RequestReplyClient::handleTimeout(ListenerCall& listenerCall) {
    bool const connected = mqtt_.communicationState() == conv::ComState::CONNECTED;
    auto& next = exchange_->nextExpiry;
    if (next == Expiry::END_REFUSED || (next == Expiry::END && connected)) {
        endRequest(ErrorCode::TIMEOUT, pending_.reply.data, listenerCall);
    } else if (next == Expiry::PUBLISH) {
        armTimer(timer_, RETRY_PERIOD, false);
        timeoutReply_.publish();
        next = Expiry::PUBLISH_AGAIN;
    } else if (connected) {
        timeoutReply_.publish();
        next = Expiry::END;
    }
}

void RequestReplyClient::onMqttData(Reply const& reply, bool empty, int /*id*/) {
    if (empty) {
        return;
    }
    ListenerCall listenerCall;
    MutexLock const lock(mutex_);
    if (!idle_ && reply.requestId == pending_.reply.requestId
        && reply.data == exchange_->expected) {
        endRequest(reply.error, pending_.reply.data, listenerCall);
        if (reply.error != ErrorCode::TIMEOUT) {
            mqtt_.endpointReport().requestReplied();
        }
    } else if (reply.error != ErrorCode::TIMEOUT) {
        mqtt_.endpointReport().replyDropped(reply.name, reply.requestId);
    }
}

void RequestReplyClient::endRequest(ErrorCode error, std::shared_ptr<RequestReplyData> const& data,
                                    ListenerCall& listenerCall) {
    idle_ = true;
    pending_.reply.error = error;
    if (error == ErrorCode::TIMEOUT) {
        mqtt_.endpointReport().requestTimedOut();
    }
    exchange_->ended = true;
    exchange_->reply.error = error;
    exchange_->reply.data = data;
    listenerCall.listener = std::exchange(pending_.listener, nullptr);
    listenerCall.exchange = exchange_;
    stopListening();
    timer_.stop();
    ended_.notify_all();
}

/// The application has its payload object back: nothing is read into it any more.
void RequestReplyClient::stopListening() noexcept {
    exchange_->expected = nullptr;
    try {
        MqttDataBase::Lock endpointLock(replies().mutex());
        replies().value.data = nullptr;
        replies().subscriber = nullptr;
        replies().MqttDataBase::unsubscribe(endpointLock);
    } catch (...) {
        // No memory for the topic. The subscription stays until the next request; what arrives
        // meanwhile finds no subscriber.
        hasOldSubscription_ = true;
    }
}

ErrorCode RequestReplyClient::waitEndOfRequest(conv::SecondsDuration const& timeout) {
    ActiveCalls::Call const call(calls_);
    ListenerCall listenerCall;
    MutexLock lock(mutex_);
    return waitFor(timeout, listenerCall, lock);
}

ErrorCode RequestReplyClient::waitEndOfRequest(unsigned int requestId,
                                               conv::SecondsDuration const& timeout) {
    ActiveCalls::Call const call(calls_);
    ListenerCall listenerCall;
    MutexLock lock(mutex_);
    return requestId == pending_.reply.requestId ? waitFor(timeout, listenerCall, lock)
                                                 : ErrorCode::CANCELLED;
}

/// The deadline counts first: a request that ends in the same instant is a time-out to the thread
/// that waited, whatever its listener is called with, and to those who ask later. Another thread
/// that still has time gets what the reply says.
ErrorCode RequestReplyClient::waitFor(conv::SecondsDuration const& timeout,
                                      ListenerCall& listenerCall, MutexLock& lock) {
    auto const exchange = exchange_;
    if (exchange->ended) {
        return pending_.reply.error;
    }
    auto const deadline = timeout.toTimepoint(steady_clock::now());
    // The worker would have to read the reply that it waits for, and the timer's thread to end a
    // request with a time-out.
    bool const hasTimeout = exchange->due != steady_clock::time_point::max();
    bool late =
        mqtt_.onWorkerThread() || (hasTimeout && std::this_thread::get_id() == timerThread_);
    if (!late) {
        ++exchange->waiters;
        waitUntil(ended_, lock, deadline, [&] { return exchange->ended; });
        --exchange->waiters;
        waiterLeft_.notify_all();
        late = steady_clock::now() >= deadline;
    }
    if (!late) {
        return exchange->reply.error;
    }
    if (!exchange->ended) {
        endRequest(ErrorCode::TIMEOUT, NO_DATA, listenerCall);
    } else if (exchange == exchange_) {
        pending_.reply.error = ErrorCode::TIMEOUT;
    }
    return ErrorCode::TIMEOUT;
}

ErrorCode RequestReplyClient::cancel() {
    ActiveCalls::Call const call(calls_);
    ListenerCall listenerCall;
    MutexLock lock(mutex_);
    cancelRequest(listenerCall, lock);
    return ErrorCode::SUCCESS;
}

void RequestReplyClient::cancelRequest(ListenerCall& listenerCall, MutexLock& lock) {
    if (idle_) {
        return;
    }
    auto const exchange = exchange_;
    endRequest(ErrorCode::CANCELLED, NO_DATA, listenerCall);
    waiterLeft_.wait(lock, [&] { return exchange->waiters == 0; });
}

void RequestReplyClient::terminate() {
    if (terminated_) {
        return;
    }
    ActiveCalls::Call const call(calls_);
    ListenerCall listenerCall;
    MutexLock lock(mutex_);
    if (terminated_.exchange(true)) {
        return;
    }
    cancelRequest(listenerCall, lock);
    bool const timerIsInListener = timerHasCalledListener_;
    lock.unlock();
    // That listener may wait for this call, to destroy this object.
    if (!timerIsInListener) {
        timer_.terminate();
    }
}

} // namespace mqtt
