#include "support/stand_in/stand_in.hpp"

#include <algorithm>
#include <future>
#include <utility>

namespace support {

namespace {

struct Registry {
    std::mutex mutex;
    StandIn::Version version{LIBMOSQUITTO_MAJOR, LIBMOSQUITTO_MINOR, LIBMOSQUITTO_REVISION};
    std::vector<std::shared_ptr<StandIn>> all;
    std::function<void(StandIn&)> onConstruction;
};

Registry& registry() {
    static Registry instance;
    return instance;
}

} // namespace

StandIn::StandIn(mosqpp::mosquittopp& object, std::string clientId, bool cleanSession)
    : clientId_(std::move(clientId)),
      cleanSession_(cleanSession),
      initialisations_(libraryInitialisations()),
      object_(&object) {}

std::atomic<int>& StandIn::libraryInitialisations() {
    static std::atomic<int> count{0};
    return count;
}

void StandIn::setLibraryVersion(Version version) {
    std::lock_guard<std::mutex> lock(registry().mutex);
    registry().version = version;
}

StandIn::Version StandIn::libraryVersion() {
    std::lock_guard<std::mutex> lock(registry().mutex);
    return registry().version;
}

StandIn* StandIn::make(mosqpp::mosquittopp& object, char const* clientId, bool cleanSession) {
    std::shared_ptr<StandIn> standIn(new StandIn(object, clientId ? clientId : "", cleanSession));
    std::function<void(StandIn&)> hook;
    {
        std::lock_guard<std::mutex> lock(registry().mutex);
        registry().all.push_back(standIn);
        hook = registry().onConstruction;
    }
    try {
        if (hook) {
            hook(*standIn);
        }
    } catch (...) {
        standIn->detach();
        throw;
    }
    return standIn.get();
}

void StandIn::onConstruction(std::function<void(StandIn&)> hook) {
    std::lock_guard<std::mutex> lock(registry().mutex);
    registry().onConstruction = std::move(hook);
}

void StandIn::detach() {
    std::lock_guard<std::mutex> lock(mutex_);
    object_ = nullptr;
    steps_.clear();
}

std::shared_ptr<StandIn> StandIn::last() {
    std::lock_guard<std::mutex> lock(registry().mutex);
    return registry().all.empty() ? nullptr : registry().all.back();
}

std::shared_ptr<StandIn> StandIn::withClientId(std::string const& clientId) {
    std::lock_guard<std::mutex> lock(registry().mutex);
    auto const& all = registry().all;
    auto const found = std::find_if(all.rbegin(), all.rend(), [&](auto const& standIn) {
        return standIn->clientId() == clientId;
    });
    return found == all.rend() ? nullptr : *found;
}

void StandIn::answer(Operation operation, std::vector<int> const& results) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto& queue = answers_[operation];
    queue.insert(queue.end(), results.begin(), results.end());
    changed_.notify_all();
}

void StandIn::setHook(Operation operation, Hook hook) {
    std::lock_guard<std::mutex> lock(mutex_);
    hooks_[operation] = std::move(hook);
    changed_.notify_all();
}

void StandIn::postStep(Step step) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (object_) {
        steps_.push_back(std::move(step));
    }
    changed_.notify_all();
}

void StandIn::post(Callback callback) {
    postStep([callback = std::move(callback)](mosqpp::mosquittopp& object) {
        callback(object);
        return 0;
    });
}

void StandIn::runInLoop(Callback callback) {
    std::promise<void> done;
    post([&](mosqpp::mosquittopp& object) {
        callback(object);
        done.set_value();
    });
    done.get_future().wait();
}

void StandIn::loseConnection(int code) {
    postStep([this, code](mosqpp::mosquittopp& object) {
        locked([this] { connected_ = false; });
        object.on_disconnect(code);
        return code;
    });
}

void StandIn::deliver(std::string const& topic, std::string const& payload, int qos, bool retain) {
    post([=](mosqpp::mosquittopp& object) {
        std::string text = topic;
        std::string bytes = payload;
        mosquitto_message message{};
        message.topic = text.data();
        message.payload = bytes.data();
        message.payloadlen = static_cast<int>(bytes.size());
        message.qos = qos;
        message.retain = retain;
        object.on_message(&message);
    });
}

bool StandIn::waitForCalls(Operation operation, std::size_t count,
                           std::chrono::milliseconds deadline) const {
    auto const matches = [&](Call const& call) { return call.operation == operation; };
    auto const enough = [&](std::vector<Call> const& all) {
        return std::count_if(all.begin(), all.end(), matches) >= static_cast<long>(count);
    };
    return calls_.waitFor(enough, deadline);
}

int StandIn::run(Call call, int* mid) {
    call.thread = std::this_thread::get_id();
    call.loopsBefore = loops_;
    call.mid = locked([&] { return ++lastMid_; });
    if (mid) {
        *mid = call.mid; // before a hook runs: the library may acknowledge as early
    }
    // Kept before it takes effect: a thread that sees the effect finds the call here.
    std::size_t const index = calls_.change([&](std::vector<Call>& all) {
        all.push_back(call);
        return all.size() - 1;
    });
    std::optional<int> const answer = scripted(call);
    int const result = answer ? *answer : builtIn(call);
    calls_.change([&](std::vector<Call>& all) { all[index].result = result; });
    return result;
}

std::optional<int> StandIn::scripted(Call const& call) {
    Hook hook;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto& answers = answers_[call.operation];
        if (!answers.empty()) {
            int const result = answers.front();
            answers.pop_front();
            return result;
        }
        hook = hooks_[call.operation];
    }
    return hook ? hook(call) : std::nullopt;
}

int StandIn::builtIn(Call const& call) {
    switch (call.operation) {
    case Operation::CONNECT:
    case Operation::RECONNECT:
        return connect();
    case Operation::DISCONNECT:
        if (!connected()) {
            return MOSQ_ERR_NO_CONN;
        }
        loseConnection(0);
        return 0;
    case Operation::PUBLISH:
    case Operation::SUBSCRIBE:
    case Operation::UNSUBSCRIBE:
        if (!connected()) {
            return MOSQ_ERR_NO_CONN;
        }
        acknowledge(call);
        return 0;
    default:
        return 0;
    }
}

int StandIn::connect() {
    std::optional<int> const code = locked([&] {
        connected_ = true;
        return connack_;
    });
    if (code) {
        post([code](mosqpp::mosquittopp& object) { object.on_connect(*code); });
        if (*code != 0) {
            loseConnection(MOSQ_ERR_CONN_REFUSED);
        }
    }
    return 0;
}

void StandIn::acknowledge(Call const& call) {
    if (!locked([&] { return acknowledging_; })) {
        return;
    }
    if (call.operation == Operation::PUBLISH) {
        post([mid = call.mid](mosqpp::mosquittopp& object) { object.on_publish(mid); });
    } else if (call.operation == Operation::UNSUBSCRIBE) {
        post([mid = call.mid](mosqpp::mosquittopp& object) { object.on_unsubscribe(mid); });
    }
}

int StandIn::loop(int timeoutMilliseconds) {
    ++loops_;
    Call call;
    call.operation = Operation::LOOP;
    call.thread = std::this_thread::get_id();
    if (std::optional<int> const result = scripted(call)) {
        return *result;
    }
    std::unique_lock<std::mutex> lock(mutex_);
    auto const something = [this] {
        return !connected_ || !steps_.empty() || !answers_[Operation::LOOP].empty();
    };
    changed_.wait_for(lock, std::chrono::milliseconds(timeoutMilliseconds), something);
    if (steps_.empty()) {
        return connected_ ? 0 : MOSQ_ERR_NO_CONN;
    }
    Step const step = std::move(steps_.front());
    steps_.pop_front();
    mosqpp::mosquittopp& object = *object_;
    lock.unlock();
    return step(object);
}

} // namespace support
