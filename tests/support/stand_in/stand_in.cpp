#include "support/stand_in/stand_in.hpp"

#include "support/allocations.hpp"

#include <algorithm>
#include <future>

namespace support {

namespace {

struct Registry {
    std::vector<std::shared_ptr<StandIn>> all;
    std::function<void(StandIn&)> onConstruction;
};

mqtt::test::Watched<Registry>& registry() {
    static mqtt::test::Watched<Registry> instance;
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

// The broker library's class, implemented by a script. It has only what this project calls: a
// program that calls more does not link.

namespace mosqpp {

using support::StandIn;
using Operation = StandIn::Operation;

namespace {

// The only member of the class is a pointer to the C library's client: here, to the script.
StandIn& scriptOf(mosquitto* member) {
    return *reinterpret_cast<StandIn*>(member);
}

int run(mosquitto* member, Operation operation, char const* topic = nullptr, int size = 0,
        void const* payload = nullptr, int qos = 0, bool retain = false, int* mid = nullptr) {
    support::UncountedAllocations const ours;
    auto const* const bytes = static_cast<char const*>(payload);
    return scriptOf(member).run(
        {operation, topic ? topic : "", std::string(bytes, bytes + size), qos, retain}, mid);
}

} // namespace

int lib_init() {
    return StandIn::initialiseLibrary();
}

int lib_version(int* major, int* minor, int* revision) {
    StandIn::Version const version = StandIn::libraryVersion();
    *major = version.major;
    *minor = version.minor;
    *revision = version.revision;
    return version.major * 1000000 + version.minor * 1000 + version.revision;
}

int topic_matches_sub(char const* pattern, char const* topic, bool* result) {
    return mosquitto_topic_matches_sub(pattern, topic, result);
}

mosquittopp::mosquittopp(char const* id, bool clean_session)
    : m_mosq(reinterpret_cast<mosquitto*>(StandIn::make(*this, id, clean_session))) {}

mosquittopp::~mosquittopp() {
    scriptOf(m_mosq).detach();
}

int mosquittopp::will_set(char const* topic, int payloadlen, void const* payload, int qos,
                          bool retain) {
    return run(m_mosq, Operation::WILL_SET, topic, payloadlen, payload, qos, retain);
}

int mosquittopp::will_clear() {
    return run(m_mosq, Operation::WILL_CLEAR);
}

int mosquittopp::connect(char const* host, int port, int /*keepalive*/) {
    return run(m_mosq, Operation::CONNECT, host, 0, nullptr, port);
}

int mosquittopp::reconnect() {
    return run(m_mosq, Operation::RECONNECT);
}

int mosquittopp::disconnect() {
    return run(m_mosq, Operation::DISCONNECT);
}

int mosquittopp::publish(int* mid, char const* topic, int payloadlen, void const* payload, int qos,
                         bool retain) {
    return run(m_mosq, Operation::PUBLISH, topic, payloadlen, payload, qos, retain, mid);
}

int mosquittopp::subscribe(int* mid, char const* sub, int qos) {
    return run(m_mosq, Operation::SUBSCRIBE, sub, 0, nullptr, qos, false, mid);
}

int mosquittopp::unsubscribe(int* mid, char const* sub) {
    return run(m_mosq, Operation::UNSUBSCRIBE, sub, 0, nullptr, 0, false, mid);
}

int mosquittopp::threaded_set(bool /*threaded*/) {
    return run(m_mosq, Operation::THREADED_SET);
}

int mosquittopp::loop(int timeout, int /*max_packets*/) {
    return scriptOf(m_mosq).loop(timeout);
}

// Accepted and ignored.

int mosquittopp::socket() {
    return -1;
}

int mosquittopp::opts_set(mosq_opt_t /*option*/, void* /*value*/) {
    return 0;
}

int mosquittopp::max_inflight_messages_set(unsigned /*count*/) {
    return 0;
}

int mosquittopp::username_pw_set(char const* /*username*/, char const* /*password*/) {
    return 0;
}

int mosquittopp::tls_set(char const* /*cafile*/, char const* /*capath*/, char const* /*certfile*/,
                         char const* /*keyfile*/, int (* /*pw_callback*/)(char*, int, int, void*)) {
    return 0;
}

int mosquittopp::tls_opts_set(int /*cert_reqs*/, char const* /*tls_version*/,
                              char const* /*ciphers*/) {
    return 0;
}

int mosquittopp::tls_insecure_set(bool /*value*/) {
    return 0;
}

int mosquittopp::tls_psk_set(char const* /*psk*/, char const* /*identity*/,
                             char const* /*ciphers*/) {
    return 0;
}

int mosquittopp::loop_read(int /*max_packets*/) {
    return 0;
}

int mosquittopp::loop_write(int /*max_packets*/) {
    return 0;
}

int mosquittopp::loop_misc() {
    return 0;
}

bool mosquittopp::want_write() {
    return false;
}

} // namespace mosqpp
