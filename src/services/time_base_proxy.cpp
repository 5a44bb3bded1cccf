// The server's time as seen from here: exchanges, their samples, and the filter over them.
//
// - `mutex_` guards which run is under way and all that belongs to it. It is taken before the
//   request client's, the timer's and the MQTT client's locks, and never held while the listener
//   is called.
// - Each run has a number. What an earlier one left in flight, a reply, an expiry of the timer or
//   a call to the listener, is recognised by it and changes nothing.
// - An active proxy that is not synchronised has a request under way or, when that could not be
//   sent, its timer armed to try again. That needs no thread: the timer has its own from the start.

#include "common/user_call.hpp"
#include "common/visitors.hpp"
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

/// The reply of one exchange.
class SynchronizedTimeBaseMqttProxy::Sample final : public TimeSyncReplyData {
public:
    explicit Sample(unsigned int ofRun) : run(ofRun) {}

    void deserialize(zym::common::lwjson::Deserializer& in) override {
        TimeSyncReplyData::deserialize(in);
        isRead_ = true;
    }

    /// The middle of the exchange on our clock, less the server's time; not a number when the
    /// reply could not be read.
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
      timer_([this] { callUser([this] { onTimer(); }); }, INITIAL_PERIOD, false),
      requestClient_(client, topic, Topic(), TIME_SYNC_REQUEST_REPLY_NAME),
      callers_(std::make_shared<Visitors>()),
      tellers_(std::make_shared<Visitors>()),
      mqtt_(client) {
    reset(Lock(mutex_));
}

SynchronizedTimeBaseMqttProxy::~SynchronizedTimeBaseMqttProxy() {
    release();
}

void SynchronizedTimeBaseMqttProxy::release() noexcept {
    SynchronizedTimeBaseMqttProxy::terminate();
    callers_->waitForOthers();
    requestClient_.release();
}

void SynchronizedTimeBaseMqttProxy::terminate() {
    if (!setTerminatedFlag()) {
        return;
    }
    registerListener(nullptr);
    requestClient_.terminate();
    timer_.terminate();
    {
        Lock const lock(mutex_);
        active_ = false;
        changed_.notify_all();
    }
    // From inside the listener's call: who waits in `stop` for its end may be someone for whom its
    // listener waits now, to destroy what is around this proxy.
    tellers_->leave();
    tellers_->waitForOthers();
}

bool SynchronizedTimeBaseMqttProxy::startSync(Uuid const& server) {
    return start(server, false, Lock(mutex_));
}

bool SynchronizedTimeBaseMqttProxy::synchronize(Uuid const& server,
                                                conv::SecondsDuration const& timeout) {
    Visitors::Visit const visit(callers_);
    Lock lock(mutex_);
    return start(server, true, lock) && waitUntilSynchronized(timeout, lock);
}

/// Active before the first request leaves: its reply may be here before `request` returns.
bool SynchronizedTimeBaseMqttProxy::start(Uuid const& server, bool blocking, Lock const& lock) {
    if (active_) {
        return false;
    }
    reset(lock);
    setServerUuid(server);
    active_ = true;
    try {
        // The timer's thread is made now, while the caller can be told that there is none.
        arm(SAMPLE_PERIOD, lock);
        timer_.stop();
        active_ = sendRequest(!blocking, lock);
    } catch (...) {
        active_ = false;
        throw;
    }
    return active_;
}

bool SynchronizedTimeBaseMqttProxy::waitUntilSynchronized(conv::SecondsDuration const& timeout,
                                                          Lock& lock) {
    // As a signed number: all ones is a second ago, and nobody waits.
    // The worker would have to read the replies that it waits for.
    auto const patience = mqtt_.onWorkerThread() ? 0 : timeout.toInt32();
    auto const deadline = steady_clock::now() + seconds(patience);
    auto const run = run_;
    while (run == run_ && active_) {
        if (isSynchronized()) {
            return true;
        }
        if (steady_clock::now() >= deadline) {
            break;
        }
        waitSlice(changed_, lock, deadline);
    }
    // Who has stopped this run may have started another one since.
    if (run == run_) {
        stop(lock);
    }
    return false;
}

bool SynchronizedTimeBaseMqttProxy::stop() {
    {
        Lock const lock(mutex_);
        stop(lock);
    }
    tellers_->waitForOthers();
    return true;
}

void SynchronizedTimeBaseMqttProxy::stop(Lock const& lock) {
    setServerUuid(Uuid::NIL);
    reset(lock);
    changed_.notify_all();
}

void SynchronizedTimeBaseMqttProxy::reset(Lock const& /*lock*/) {
    ++run_;
    active_ = false;
    retrying_ = false;
    periodic_ = false;
    setSynchronizedFlag(false);
    remainingSamples_ = SAMPLES;
    setOffset(0.0);
    timer_.stop();
    requestClient_.cancel();
}

void SynchronizedTimeBaseMqttProxy::forceSync() {
    Lock const lock(mutex_);
    if (!isSynchronized()) {
        return;
    }
    sendRequest(true, lock);
    remainingSamples_ = SAMPLES;
    setOffset(0.0);
}

bool SynchronizedTimeBaseMqttProxy::sendRequest(bool notify, Lock const& lock) {
    notifyOnSuccess_ = notify;
    if (tryToSendRequest(lock)) {
        return true;
    }
    if (isSynchronized()) {
        return false; // the timer's exchange is as good as ours
    }
    // An expiry of the timer from before this run is late, and was faster than we are: nobody
    // needs its exchange, and without ours there would be no next one.
    requestClient_.cancel();
    return tryToSendRequest(lock);
}

bool SynchronizedTimeBaseMqttProxy::tryToSendRequest(Lock const& /*lock*/) {
    auto const sample = std::make_shared<Sample>(run_);
    auto const request = std::make_shared<TimeSyncRequestData>(localTimeBase());
    return requestClient_.request(this, uuid(), serverUuid(), request, sample, nullptr,
                                  REQUEST_TIMEOUT)
           == ErrorCode::PENDING;
}

/// Makes the next exchange of a run, now or, when that cannot be, later.
void SynchronizedTimeBaseMqttProxy::goOn(Lock const& lock) {
    try {
        if (sendRequest(notifyOnSuccess_, lock)) {
            return;
        }
    } catch (...) {
        // No memory, or a derived clock that throws.
    }
    if (isSynchronized()) {
        return; // the periodic exchange is enough
    }
    retrying_ = true;
    arm(RETRY_PERIOD, lock);
}

void SynchronizedTimeBaseMqttProxy::arm(milliseconds period, Lock const& /*lock*/) {
    std::unique_lock<std::mutex> timerLock(timer_.mutex());
    timer_.setPeriod(period, timerLock);
    timer_.once = false;
    timer_.restart(timerLock);
}

void SynchronizedTimeBaseMqttProxy::onReply(unsigned int /*requestId*/, std::string const& /*name*/,
                                            Uuid const& /*clientUuid*/, Uuid const& /*serverUuid*/,
                                            RequestReplyData const& data, ErrorCode error) {
    // A request that was called off comes without its sample, and with our mutex locked already.
    auto const* const sample = dynamic_cast<Sample const*>(&data);
    if (sample == nullptr) {
        return;
    }
    double const offset = offsetOf(*sample);
    auto const run = sample->run;
    bool done = false;
    {
        Lock const lock(mutex_);
        if (!isCurrent(*sample, lock)) {
            return;
        }
        if (error == ErrorCode::SUCCESS && std::isfinite(offset)) {
            done = updateTimeBase(offset, lock);
        } else {
            goOn(lock);
        }
    }
    if (done) {
        tellListener(run);
    }
}

/// Not a number when the reply could not be read, or our clock.
double SynchronizedTimeBaseMqttProxy::offsetOf(Sample const& sample) const {
    try {
        return sample.offset(localTimeBase());
    } catch (...) {
        return std::numeric_limits<double>::quiet_NaN();
    }
}

bool SynchronizedTimeBaseMqttProxy::isCurrent(Sample const& sample, Lock const& /*lock*/) const {
    return active_ && sample.run == run_;
}

/// Returns whether the listener is to be told that the time is known now.
bool SynchronizedTimeBaseMqttProxy::updateTimeBase(double sample, Lock const& lock) {
    if (isSynchronized()) {
        filter(sample, lock);
        if (!periodic_) {
            startPeriodicExchange(lock);
        }
        return false;
    }
    if (remainingSamples_ == SAMPLES) {
        setOffset(sample);
        gain_ = FIRST_GAIN;
    } else {
        filter(sample, lock);
    }
    if (--remainingSamples_ > 0) {
        goOn(lock);
        return false;
    }
    setSynchronized(lock);
    return notifyOnSuccess_;
}

void SynchronizedTimeBaseMqttProxy::filter(double sample, Lock const& /*lock*/) {
    setOffset(gain_ * sample + (1 - gain_) * offset_);
    if (gain_ > LEAST_GAIN) {
        gain_ *= GAIN_DECAY;
    }
}

void SynchronizedTimeBaseMqttProxy::setSynchronized(Lock const& lock) {
    setSynchronizedFlag(true);
    changed_.notify_all();
    startPeriodicExchange(lock);
}

void SynchronizedTimeBaseMqttProxy::startPeriodicExchange(Lock const& lock) {
    try {
        arm(SAMPLE_PERIOD, lock);
        periodic_ = true;
    } catch (...) {
        // A device's timer may need a new thread each time, and there is none: the next sample, a
        // forced one, tries again.
    }
}

void SynchronizedTimeBaseMqttProxy::tellListener(unsigned int run) {
    Visitors::Visit const visit(tellers_);
    {
        Lock const lock(mutex_);
        if (run != run_) {
            return;
        }
    }
    // The listener may destroy this object.
    callUser([this] { notifyListener(); });
}

void SynchronizedTimeBaseMqttProxy::onTimer() {
    std::shared_ptr<Sample> sample;
    std::shared_ptr<TimeSyncRequestData> request;
    Uuid server;
    {
        Lock const lock(mutex_);
        if (std::exchange(retrying_, false)) {
            timer_.stop();
            goOn(lock);
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
    // Unless it was a reply that ended the exchange, the sample has not been read.
    if (requestClient_.requestWait(uuid(), server, request, sample, REQUEST_TIMEOUT)
        != ErrorCode::SUCCESS) {
        return;
    }
    double const offset = offsetOf(*sample);
    Lock const lock(mutex_);
    if (std::isfinite(offset) && isCurrent(*sample, lock)) {
        updateTimeBase(offset, lock);
    }
}

std::uint32_t SynchronizedTimeBaseMqttProxy::timeBase() const {
    return wholeSeconds(localTimeBase() - offset());
}

double SynchronizedTimeBaseMqttProxy::localTimeBase() const {
    return monotonicSeconds();
}

double SynchronizedTimeBaseMqttProxy::offset() const {
    std::lock_guard const lock(offsetMutex_);
    return offset_;
}

void SynchronizedTimeBaseMqttProxy::setOffset(double offset) {
    std::lock_guard const lock(offsetMutex_);
    offset_ = offset;
}

} // namespace mqtt
