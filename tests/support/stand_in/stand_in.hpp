#pragma once

#include "mqtt/mosquittopp.hpp"
#include "mqtt/test/watched.hpp"

#include <mosquitto.h>

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace support {

/// The script behind one object of the broker library's class, in programs that link
/// `mqtt-on-stand-in` in place of the broker library.
///
/// As made it behaves like the library with a working broker: connecting succeeds, the next network
/// step reports it, publications and unsubscriptions are acknowledged in later network steps;
/// without a connection every call returns 4. A test changes that call by call, and examines the
/// calls.
///
/// The library runs callbacks in the network step (`post`, `runInLoop`): a test does otherwise only
/// to see what happens then.
class StandIn {
public:
    /// LOOP is scripted like the others, but not kept among the calls.
    enum class Operation {
        CONNECT,
        RECONNECT,
        DISCONNECT,
        LOOP,
        PUBLISH,
        SUBSCRIBE,
        UNSUBSCRIBE,
        WILL_SET,
        WILL_CLEAR,
        THREADED_SET
    };

    struct Call {
        Operation operation{};
        std::string topic{}; ///< the host of CONNECT
        std::string payload{};
        int qos = 0; ///< the port of CONNECT
        bool retain = false;
        int mid = 0;                 ///< what the caller was given
        std::thread::id thread{};    ///< the caller's
        std::size_t loopsBefore = 0; ///< calls of LOOP up to then
        std::optional<int> result{}; ///< none while it has not returned
    };

    /// Called, with no lock held, in place of the built-in behaviour. It may block and may call
    /// the object; without a value the built-in behaviour follows.
    using Hook = std::function<std::optional<int>(Call const&)>;
    using Callback = std::function<void(mosqpp::mosquittopp&)>;

    /// Of the object made last, even if it is destroyed. Null when there was none.
    static std::shared_ptr<StandIn> last();
    /// Of the object made last with this client identifier.
    static std::shared_ptr<StandIn> withClientId(std::string const& clientId);
    /// Called from now on with each new one, before its client can use it. What it throws leaves
    /// the constructor of the library's class.
    static void onConstruction(std::function<void(StandIn&)> hook);
    /// How often the library as a whole was initialised so far.
    static int libraryInitialisations() { return libraryInitialisations_; }

    struct Version {
        int major;
        int minor;
        int revision;
    };
    /// The version that the library reports; that of its headers unless set. Only while no client
    /// is being made.
    static void setLibraryVersion(Version version) { libraryVersion_ = version; }
    static Version libraryVersion() { return libraryVersion_; }

    // The script.
    /// Results of the next calls of an operation, in order; then the built-in behaviour again.
    /// Such a call changes nothing in the stand-in.
    void answer(Operation operation, std::vector<int> const& results);
    void setHook(Operation operation, Hook hook);
    /// The code with which the network step reports a connection; nullopt: the test reports it.
    void setConnack(std::optional<int> code) {
        state_.change([&](State& state) { state.connack = code; });
    }
    /// Whether publications and unsubscriptions are acknowledged without the test's doing.
    void setAcknowledging(bool acknowledging) {
        state_.change([&](State& state) { state.acknowledging = acknowledging; });
    }
    /// The message id of the next call; they count up from there. The library's begin again at 1
    /// after 65,535.
    void setNextMid(int mid) {
        state_.change([&](State& state) { state.lastMid = mid - 1; });
    }

    // What happens in the network step, one thing per step, in order.
    void post(Callback callback);
    /// Posts and waits until it has run. Not for the worker thread.
    void runInLoop(Callback callback);
    /// The network step ends the connection: `on_disconnect(code)`, and returns the code.
    void loseConnection(int code = 7);
    void deliver(std::string const& topic, std::string const& payload, int qos = 0,
                 bool retain = false);

    // What was called.
    std::vector<Call> calls() const { return calls_.copy(); }
    std::vector<Call> calls(Operation operation) const;
    std::size_t count(Operation operation) const { return calls(operation).size(); }
    bool waitForCalls(Operation operation, std::size_t count) const;
    /// Network steps begun so far.
    std::size_t loops() const { return loops_; }
    bool connected() const {
        return state_.read([](State const& state) { return state.connected; });
    }
    /// How often the library as a whole had been initialised when this object was made.
    int initialisations() const { return initialisations_; }
    std::string const& clientId() const { return clientId_; }
    bool cleanSession() const { return cleanSession_; }
    /// Whether the object of the library's class is destroyed.
    bool destroyed() const {
        return state_.read([](State const& state) { return state.object == nullptr; });
    }

    // For the library's class.
    static int initialiseLibrary() {
        ++libraryInitialisations_;
        return mosquitto_lib_init();
    }
    static StandIn* make(mosqpp::mosquittopp& object, char const* clientId, bool cleanSession);
    void detach();
    int run(Call call, int* mid);
    int loop(int timeoutMilliseconds);

private:
    using Step = std::function<int(mosqpp::mosquittopp&)>;

    struct State {
        mosqpp::mosquittopp* object = nullptr;
        bool connected = false;
        std::optional<int> connack = 0;
        bool acknowledging = true;
        int lastMid = 0;
        std::map<Operation, std::deque<int>> answers;
        std::map<Operation, Hook> hooks;
        std::deque<Step> steps;
    };

    StandIn(mosqpp::mosquittopp& object, std::string clientId, bool cleanSession);
    std::optional<int> scripted(Call const& call);
    int builtIn(Call const& call);
    void connect();
    void postStep(Step step);

    static inline std::atomic<int> libraryInitialisations_{0};
    static inline Version libraryVersion_{LIBMOSQUITTO_MAJOR, LIBMOSQUITTO_MINOR,
                                          LIBMOSQUITTO_REVISION};

    std::string const clientId_;
    bool const cleanSession_;
    int const initialisations_ = libraryInitialisations_;
    mqtt::test::Watched<State> state_;
    mqtt::test::Watched<std::vector<Call>> calls_;
    std::atomic<std::size_t> loops_{0};
};

} // namespace support
