// Estimates the server's time: exchanges, their samples, and the filter over them.
//
// - `mutex_` guards which run is under way and everything that belongs to it. It is taken before
//   the request client's, the timer's and the MQTT client's locks, and is not held while the
//   listener is called.
// - Each run has a number. What an earlier run left in flight, a reply, an expiry of the timer or a
//   call of the listener, has another number and changes nothing.
// - An active proxy that is not synchronised has a request under way, or its timer armed to send
//   the next one. That needs no memory and no thread: the timer has its thread from the start.

#include "common/active_calls.hpp"
#include "common/application_call.hpp"
#include "common/arm_timer.hpp"
#include "common/wait.hpp"
#include "mqtt/time_base.hpp"
#include "services/local_clock.hpp"

#include <cmath>
#include <limits>
#include <utility>

namespace mqtt {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using zym::common::Uuid;
using ErrorCode = RequestReply::ErrorCode;

conv::SecondsDuration const REQUEST_TIMEOUT{5};
constexpr milliseconds INITIAL_PERIOD{1000};
constexpr milliseconds SAMPLE_PERIOD{30000};
constexpr milliseconds RETRY_PERIOD{1000};

constexpr std::int32_t SAMPLES = 10;
constexpr double FIRST_GAIN = 0.1;
constexpr double GAIN_DECAY = 0.9;
constexpr double LEAST_GAIN = 0.005;

} // namespace

/// The reply of one exchange, and the run that the exchange belongs to.
class SynchronizedTimeBaseMqttProxy::Sample final : public TimeSyncReplyData {
public:
    explicit Sample(unsigned int ofRun) : run(ofRun) {}

    void deserialize(zym::common::lwjson::Deserializer& in) override {
        TimeSyncReplyData::deserialize(in);
        isRead_ = true;
    }

    /// The middle of the exchange on the local clock, less the server's time; not a number when
    /// the reply could not be read.
    double offset(double arrival) const {
        return isRead_ ? 0.5 * (arrival + client) - ref : std::numeric_limits<double>::quiet_NaN();
    }

    unsigned int const run;

private:
    bool isRead_ = false;
};

SynchronizedTimeBaseMqttProxy::SynchronizedTimeBaseMqttProxy(
    MqttClient& client, Topic const& topic, Uuid const& uuid,
    zym::common::SynchronizedTimeBaseProxy::Listener* listener)
    : zym::common::SynchronizedTimeBaseProxy(uuid, listener),
      // A derived clock may throw, and not every timer catches that.
      timer_([this] { callApplication([this] { onTimer(); }, "Clock of a time base"); },
             INITIAL_PERIOD, false),
      requestClient_(client, topic, Topic(), TIME_SYNC_REQUEST_REPLY_NAME),
      calls_(std::make_shared<ActiveCalls>()),
      listenerCalls_(std::make_shared<ActiveCalls>()),
      mqtt_(client) {
    MutexLock const lock(mutex_);
    reset();
}

SynchronizedTimeBaseMqttProxy::~SynchronizedTimeBaseMqttProxy() {
    release();
}

void SynchronizedTimeBaseMqttProxy::release() noexcept {
    SynchronizedTimeBaseMqttProxy::terminate();
    calls_->waitForOthers();
    requestClient_.release();
}

void SynchronizedTimeBaseMqttProxy::terminate() {
    bool const isFirst = setTerminatedFlag();
    if (isFirst) {
        registerListener(nullptr);
        requestClient_.terminate();
        timer_.terminate();
        MutexLock const lock(mutex_);
        active_ = false;
        changed_.notify_all();
    }
    // Inside the listener's call: a thread that waits in `stop` or `terminate` for the end of that
    // call may be one that the listener waits for, to destroy an object around this proxy.
    listenerCalls_->endCallsOfThisThread();
    if (isFirst) {
        listenerCalls_->waitForOthers();
    }
}

bool SynchronizedTimeBaseMqttProxy::startSync(Uuid const& server) {
    MutexLock const lock(mutex_);
    return start(server, false);
}

bool SynchronizedTimeBaseMqttProxy::synchronize(Uuid const& server,
                                                conv::SecondsDuration const& timeout) {
    ActiveCalls::Call const call(calls_);
    MutexLock lock(mutex_);
    return start(server, true) && waitUntilSynchronized(timeout, lock);
}

/// Active before the first request is sent: its reply may arrive before `request` returns.
bool SynchronizedTimeBaseMqttProxy::start(Uuid const& server, bool blocking) {
    if (active_) {
        return false;
    }
    reset();
    setServerUuid(server);
    active_ = true;
    try {
        // The timer's thread is made now: if there is none, the caller gets the exception.
        armTimer(timer_, SAMPLE_PERIOD, false);
        timer_.stop();
        active_ = sendRequest(!blocking);
    } catch (...) {
        active_ = false;
        throw;
    }
    return active_;
}

bool SynchronizedTimeBaseMqttProxy::waitUntilSynchronized(conv::SecondsDuration const& timeout,
                                                          MutexLock& lock) {
    // Taken as a signed number: all ones is a second ago, and such a call does not wait. Nor does
    // the worker, which would have to read the replies that it waits for.
    auto const wait = mqtt_.onWorkerThread() ? 0 : timeout.toInt32();
    auto const run = run_;
    waitUntil(changed_, lock, steady_clock::now() + seconds(wait), [&]() ZYM_MQTT_REQUIRES(mutex_) {
        return run != run_ || !active_ || isSynchronized();
    });
    // The thread that has stopped this run may have started another one since.
    if (run != run_) {
        return false;
    }
    if (active_ && isSynchronized()) {
        return true;
    }
    stopRun();
    return false;
}

bool SynchronizedTimeBaseMqttProxy::stop() {
    {
        MutexLock const lock(mutex_);
        stopRun();
    }
    listenerCalls_->waitForOthers();
    return true;
}

void SynchronizedTimeBaseMqttProxy::stopRun() {
    setServerUuid(Uuid::NIL);
    reset();
    changed_.notify_all();
}

void SynchronizedTimeBaseMqttProxy::reset() {
    ++run_;
    active_ = false;
    timerUse_ = TimerUse::NONE;
    setSynchronizedFlag(false);
    remainingSamples_ = SAMPLES;
    setOffset(0.0);
    timer_.stop();
    requestClient_.cancel();
}

void SynchronizedTimeBaseMqttProxy::forceSync() {
    MutexLock const lock(mutex_);
    if (!isSynchronized()) {
        return;
    }
    sendRequest(true);
    remainingSamples_ = SAMPLES;
    setOffset(0.0);
}

bool SynchronizedTimeBaseMqttProxy::sendRequest(bool notify) {
    notifyOnSuccess_ = notify;
    if (tryToSendRequest()) {
        return true;
    }
    if (isSynchronized()) {
        return false; // the timer's exchange serves as well
    }
    // The timer's thread has sent a request in a late expiry of an earlier run. Its reply is of no
    // use, and without this request there would be no next one.
    requestClient_.cancel();
    return tryToSendRequest();
}

bool SynchronizedTimeBaseMqttProxy::tryToSendRequest() {
    auto const sample = std::make_shared<Sample>(run_);
    auto const request = std::make_shared<TimeSyncRequestData>(localTimeBase());
    return requestClient_.request(this, uuid(), serverUuid(), request, sample, nullptr,
                                  REQUEST_TIMEOUT)
           == ErrorCode::PENDING;
}

/// Makes the next exchange of a run, now or, when it cannot be sent now, later.
void SynchronizedTimeBaseMqttProxy::makeNextExchange() {
    try {
        if (sendRequest(notifyOnSuccess_)) {
            return;
        }
    } catch (...) {
        // No memory, or a derived clock that throws.
    }
    if (isSynchronized()) {
        return; // the periodic exchange is enough
    }
    timerUse_ = TimerUse::RETRY;
    armTimer(timer_, RETRY_PERIOD, false);
}

void SynchronizedTimeBaseMqttProxy::onReply(unsigned int /*requestId*/, std::string const& /*name*/,
                                            Uuid const& /*clientUuid*/, Uuid const& /*serverUuid*/,
                                            RequestReplyData const& data, ErrorCode error) {
    // A cancelled request comes without its sample, and on a thread that has locked `mutex_`.
    auto const* const sample = dynamic_cast<Sample const*>(&data);
    if (sample == nullptr) {
        return;
    }
    double const offset = offsetOf(*sample);
    auto const run = sample->run;
    bool done = false;
    {
        MutexLock const lock(mutex_);
        if (!isCurrent(*sample)) {
            return;
        }
        if (error == ErrorCode::SUCCESS && std::isfinite(offset)) {
            done = updateTimeBase(offset);
        } else {
            makeNextExchange();
        }
    }
    if (done) {
        callListener(run);
    }
}

/// Not a number when the reply or the local clock could not be read.
double SynchronizedTimeBaseMqttProxy::offsetOf(Sample const& sample) const {
    try {
        return sample.offset(localTimeBase());
    } catch (...) {
        return std::numeric_limits<double>::quiet_NaN();
    }
}

bool SynchronizedTimeBaseMqttProxy::isCurrent(Sample const& sample) const {
    return active_ && sample.run == run_;
}

/// Returns whether the listener is to be called: the time is known now.
bool SynchronizedTimeBaseMqttProxy::updateTimeBase(double sample) {
    if (isSynchronized()) {
        filter(sample);
        if (timerUse_ != TimerUse::PERIODIC_EXCHANGE) {
            startPeriodicExchange();
        }
        return false;
    }
    if (remainingSamples_ == SAMPLES) {
        setOffset(sample);
        gain_ = FIRST_GAIN;
    } else {
        filter(sample);
    }
    if (--remainingSamples_ > 0) {
        makeNextExchange();
        return false;
    }
    setSynchronizedFlag(true);
    changed_.notify_all();
    startPeriodicExchange();
    return notifyOnSuccess_;
}

void SynchronizedTimeBaseMqttProxy::filter(double sample) {
    setOffset(gain_ * sample + (1 - gain_) * offset());
    if (gain_ > LEAST_GAIN) {
        gain_ *= GAIN_DECAY;
    }
}

void SynchronizedTimeBaseMqttProxy::startPeriodicExchange() {
    try {
        armTimer(timer_, SAMPLE_PERIOD, false);
        timerUse_ = TimerUse::PERIODIC_EXCHANGE;
    } catch (...) {
        // A device's timer may need a new thread each time, and there is none: the next sample, a
        // forced one, tries again.
    }
}

void SynchronizedTimeBaseMqttProxy::callListener(unsigned int run) {
    ActiveCalls::Call const call(listenerCalls_);
    {
        MutexLock const lock(mutex_);
        if (run != run_) {
            return;
        }
    }
    // The listener may destroy this object.
    callApplication([this] { notifyListener(); }, "Listener of a time base");
}

void SynchronizedTimeBaseMqttProxy::onTimer() {
    std::shared_ptr<Sample> sample;
    std::shared_ptr<TimeSyncRequestData> request;
    Uuid server;
    {
        MutexLock const lock(mutex_);
        if (timerUse_ == TimerUse::RETRY) {
            timerUse_ = TimerUse::NONE;
            timer_.stop();
            makeNextExchange();
            return;
        }
        // Without a connection the exchanges would only fill the queue.
        if (!isSynchronized() || mqtt_.communicationState() != conv::ComState::CONNECTED) {
            return;
        }
        notifyOnSuccess_ = true;
        sample = std::make_shared<Sample>(run_);
        request = std::make_shared<TimeSyncRequestData>(localTimeBase());
        server = serverUuid();
    }
    // The sample is read only if a reply ends the exchange.
    if (requestClient_.requestWait(uuid(), server, request, sample, REQUEST_TIMEOUT)
        != ErrorCode::SUCCESS) {
        return;
    }
    double const offset = offsetOf(*sample);
    MutexLock const lock(mutex_);
    if (std::isfinite(offset) && isCurrent(*sample)) {
        updateTimeBase(offset);
    }
}

std::uint32_t SynchronizedTimeBaseMqttProxy::timeBase() const {
    return wholeSeconds(localTimeBase() - offset());
}

double SynchronizedTimeBaseMqttProxy::localTimeBase() const {
    return monotonicSeconds();
}

double SynchronizedTimeBaseMqttProxy::offset() const {
    MutexLock const lock(offsetMutex_);
    return offset_;
}

void SynchronizedTimeBaseMqttProxy::setOffset(double offset) {
    MutexLock const lock(offsetMutex_);
    offset_ = offset;
}

} // namespace mqtt
