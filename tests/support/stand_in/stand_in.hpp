#pragma once

#include "support/watched.hpp"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace mosqpp {
class mosquittopp;
}

namespace support {

/// The script behind one object of the broker library's class, in programs that link
/// `mqtt-on-stand-in` in place of the broker library.
///
/// As made it plays the library with a good broker: connecting succeeds, the next network step
/// reports it, publications and unsubscriptions are acknowledged in later network steps; without
/// a connection every call returns 4. A test changes that call by call, and looks at the calls.
///
/// Keep to the library's manner: callbacks run in the network step (`post`, `runInLoop`), except
/// where a test wants to see what happens when they do not.
class StandIn {
public:
    enum class Operation {
        CONNECT,
        RECONNECT,
        DISCONNECT,
        LOOP, ///< answered and hooked like the others, but not kept among the calls
        PUBLISH,
        SUBSCRIBE,
        UNSUBSCRIBE,
        WILL_SET,
        WILL_CLEAR,
        THREADED_SET
    };

    struct Call {
        Operation operation{};
        std::string topic; ///< the host of CONNECT
        std::string payload;
        int qos = 0; ///< the port of CONNECT
        bool retain = false;
        int keepAlive = 0;           ///< of CONNECT, seconds
        int mid = 0;                 ///< what the caller was given
        std::thread::id thread;      ///< the caller's
        std::size_t loopsBefore = 0; ///< calls of LOOP up to then; they are not kept themselves
        std::optional<int> result;   ///< none while it has not returned
    };

    /// Called, with no lock held, in place of the built-in behaviour. It may block and may call
    /// back; no value leaves the rest to the built-in behaviour.
    using Hook = std::function<std::optional<int>(Call const&)>;
    using Callback = std::function<void(mosqpp::mosquittopp&)>;

    /// Of the object made last, also when it is gone since. Null when there was none.
    static std::shared_ptr<StandIn> last();
    /// Of the object made last with this client identifier.
    static std::shared_ptr<StandIn> withClientId(std::string const& clientId);

    /// Called from now on with every one as it is made, before its client can use it. What it
    /// throws leaves the constructor of the library's class.
    static void onConstruction(std::function<void(StandIn&)> hook);

    /// How often the library as a whole was initialised so far.
    static std::atomic<int>& libraryInitialisations();

    struct Version {
        int major;
        int minor;
        int revision;
    };
    /// The version that the library reports, until set again: that of its headers unless set.
    static void setLibraryVersion(Version version);
    static Version libraryVersion();

    // The script.
    /// Results of the next calls of an operation, in order; then the built-in behaviour again.
    /// Such a call changes nothing in the stand-in.
    void answer(Operation operation, std::vector<int> const& results);
    void setHook(Operation operation, Hook hook);
    /// The code with which the network step reports a connection; nullopt: not by itself.
    void setConnack(std::optional<int> code);
    /// Whether publications and unsubscriptions are acknowledged by themselves.
    void setAcknowledging(bool acknowledging);
    /// The message id of the next call; they count up from there. The library's begin anew after
    /// 65,535.
    void setNextMid(int mid);
    /// What `socket()` returns: -1 unless set.
    void setSocket(int socket);

    // What happens in the network step, one thing per step, in order.
    void post(Callback callback);
    /// Posts and waits until it has run. Not for the worker thread.
    void runInLoop(Callback callback);
    /// The network step ends the connection: `on_disconnect(code)`, and returns the code.
    void loseConnection(int code = 7);
    void deliver(std::string const& topic, std::string const& payload, int qos = 0,
                 bool retain = false);

    // What was seen.
    std::vector<Call> calls() const { return calls_.copy(); }
    std::vector<Call> calls(Operation operation) const;
    std::size_t count(Operation operation) const;
    bool waitForCalls(Operation operation, std::size_t count,
                      std::chrono::milliseconds deadline = DEADLINE) const;
    /// Network steps begun so far.
    std::size_t loops() const { return loops_; }
    bool connected() const;
    /// How often the library as a whole had been initialised when this object was made.
    int initialisations() const { return initialisations_; }
    std::string const& clientId() const { return clientId_; }
    bool cleanSession() const { return cleanSession_; }
    /// Whether the object is gone.
    bool destroyed() const;

private:
    friend class mosqpp::mosquittopp;
    using Step = std::function<int(mosqpp::mosquittopp&)>;

    StandIn(mosqpp::mosquittopp& object, std::string clientId, bool cleanSession);
    static StandIn* make(mosqpp::mosquittopp& object, char const* clientId, bool cleanSession);
    static void bury(StandIn* standIn);

    int run(Call call, int* mid);
    int builtIn(Call const& call);
    int whenConnected(Call const& call);
    int connectNow();
    int disconnectNow();
    int loop(int timeoutMilliseconds);
    std::optional<int> scripted(Call const& call);
    void postStep(Step step);
    void acknowledge(Call const& call);

    std::string const clientId_;
    bool const cleanSession_;
    int const initialisations_;
    mutable std::mutex mutex_; ///< what follows, up to the calls
    std::condition_variable news_;
    mosqpp::mosquittopp* object_;
    bool connected_ = false;
    std::optional<int> connack_ = 0;
    bool acknowledging_ = true;
    int socket_ = -1;
    int lastMid_ = 0;
    std::map<Operation, std::deque<int>> answers_;
    std::map<Operation, Hook> hooks_;
    std::deque<Step> steps_;
    Watched<std::vector<Call>> calls_;
    std::atomic<std::size_t> loops_{0};
};

std::ostream& operator<<(std::ostream& out, StandIn::Operation operation);
std::ostream& operator<<(std::ostream& out, StandIn::Call const& call);

} // namespace support
