#include "support/stand_in/stand_in.hpp"

#include <algorithm>
#include <future>

namespace support {

namespace {

struct Registry {
    std::vector<std::shared_ptr<StandIn>> all;
    std::function<void(StandIn&)> onConstruction;
};

Watched<Registry>& registry() {
    static Watched<Registry> instance;
    return instance;
}

} // namespace

StandIn* StandIn::make(mosqpp::mosquittopp& object, char const* clientId, bool cleanSession) {
    std::shared_ptr<StandIn> standIn(new StandIn(object, clientId ? clientId : "", cleanSession));
    auto const hook = registry().change([&](Registry& known) {
        known.all.push_back(standIn);
        return known.onConstruction;
    });
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
    registry().change([&](Registry& known) { known.onConstruction = std::move(hook); });
}

std::shared_ptr<StandIn> StandIn::last() {
    return registry().read(
        [](Registry const& known) { return known.all.empty() ? nullptr : known.all.back(); });
}

std::shared_ptr<StandIn> StandIn::withClientId(std::string const& clientId) {
    return registry().read([&](Registry const& known) {
        auto const matches = [&](auto const& standIn) { return standIn->clientId() == clientId; };
        auto const found = std::find_if(known.all.rbegin(), known.all.rend(), matches);
        return found == known.all.rend() ? nullptr : *found;
    });
}

StandIn::StandIn(mosqpp::mosquittopp& object, std::string clientId, bool cleanSession)
    : clientId_(std::move(clientId)), cleanSession_(cleanSession) {
    state_.change([&](State& state) { state.object = &object; });
}

void StandIn::detach() {
    state_.change([](State& state) {
        state.object = nullptr;
        state.steps.clear();
    });
}

void StandIn::answer(Operation operation, std::vector<int> const& results) {
    state_.change([&](State& state) {
        auto& answers = state.answers[operation];
        answers.insert(answers.end(), results.begin(), results.end());
    });
}

void StandIn::setHook(Operation operation, Hook hook) {
    state_.change([&](State& state) { state.hooks[operation] = std::move(hook); });
}

void StandIn::postStep(Step step) {
    state_.change([&](State& state) {
        if (state.object) {
            state.steps.push_back(std::move(step));
        }
    });
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
        state_.change([](State& state) { state.connected = false; });
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

std::vector<StandIn::Call> StandIn::calls(Operation operation) const {
    std::vector<Call> all = calls();
    auto const other = [&](Call const& call) { return call.operation != operation; };
    all.erase(std::remove_if(all.begin(), all.end(), other), all.end());
    return all;
}

bool StandIn::waitForCalls(Operation operation, std::size_t count) const {
    auto const matches = [&](Call const& call) { return call.operation == operation; };
    return calls_.waitFor([&](std::vector<Call> const& all) {
        return std::count_if(all.begin(), all.end(), matches) >= static_cast<long>(count);
    });
}

int StandIn::run(Call call, int* mid) {
    call.thread = std::this_thread::get_id();
    call.loopsBefore = loops_;
    call.mid = state_.change([](State& state) { return ++state.lastMid; });
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
    std::optional<int> result;
    Hook const hook = state_.change([&](State& state) {
        auto& answers = state.answers[call.operation];
        if (answers.empty()) {
            return state.hooks[call.operation];
        }
        result = answers.front();
        answers.pop_front();
        return Hook();
    });
    return hook ? hook(call) : result;
}

int StandIn::builtIn(Call const& call) {
    auto const [connected, acknowledging] = state_.read(
        [](State const& state) { return std::make_pair(state.connected, state.acknowledging); });
    bool const needsConnection =
        call.operation == Operation::DISCONNECT || call.operation == Operation::PUBLISH
        || call.operation == Operation::SUBSCRIBE || call.operation == Operation::UNSUBSCRIBE;
    if (needsConnection && !connected) {
        return MOSQ_ERR_NO_CONN;
    }
    if (call.operation == Operation::CONNECT || call.operation == Operation::RECONNECT) {
        connect();
    } else if (call.operation == Operation::DISCONNECT) {
        loseConnection(0);
    } else if (call.operation == Operation::PUBLISH && acknowledging) {
        post([mid = call.mid](mosqpp::mosquittopp& object) { object.on_publish(mid); });
    } else if (call.operation == Operation::UNSUBSCRIBE && acknowledging) {
        post([mid = call.mid](mosqpp::mosquittopp& object) { object.on_unsubscribe(mid); });
    }
    return 0;
}

void StandIn::connect() {
    std::optional<int> const code = state_.change([](State& state) {
        state.connected = true;
        return state.connack;
    });
    if (code) {
        post([code](mosqpp::mosquittopp& object) { object.on_connect(*code); });
    }
    if (code.value_or(0) != 0) {
        loseConnection(MOSQ_ERR_CONN_REFUSED);
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
    auto const something = [](State const& state) {
        auto const answers = state.answers.find(Operation::LOOP);
        return !state.connected || !state.steps.empty()
               || (answers != state.answers.end() && !answers->second.empty());
    };
    state_.waitFor(something, std::chrono::milliseconds(timeoutMilliseconds));
    int result = 0;
    mosqpp::mosquittopp* object = nullptr;
    Step const step = state_.change([&](State& state) {
        result = state.connected ? 0 : MOSQ_ERR_NO_CONN;
        object = state.object;
        Step next;
        if (!state.steps.empty()) {
            next = std::move(state.steps.front());
            state.steps.pop_front();
        }
        return next;
    });
    return step ? step(*object) : result;
}

} // namespace support
