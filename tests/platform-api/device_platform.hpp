#pragma once

// What the platform library of a device offers.

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace conv {

enum class ComState : std::uint8_t {
    UNKNOWN = 0,
    DISCONNECTED = 1,
    CONNECTED = 2,
    CONNECTION_LOST = 3,
    CONNECTING = 4
};

struct UnixTime {
    double seconds = 0;
    std::uint8_t valid = 0;
};

struct CommunicationStatus {
    ComState state = ComState::UNKNOWN;
    UnixTime since;
};

struct Identification {
    std::string uuid;
    std::string manufacturer;
    std::string model;
    std::string serial;
    std::string physicalName;
    std::string name;
    std::string interface;
    std::string version;
    std::string location;
    std::string contact;
};

struct ServiceStatus {
    std::uint8_t operating = 0;
    std::uint8_t health = 0;
};

class SecondsDuration {
public:
    SecondsDuration(std::uint32_t seconds);

    std::int32_t toInt32() const;
    std::chrono::steady_clock::time_point
    toTimepoint(std::chrono::steady_clock::time_point now) const;
};

} // namespace conv

namespace zym::common {

class Uuid {
public:
    static Uuid const NIL;
    static Uuid const UNKNOWN;

    Uuid();
    explicit Uuid(std::string const& text);
    explicit Uuid(unsigned long long number);

    bool isNil() const;
    std::string to_string() const;
    std::string base64URL() const;
};

class Timer {
public:
    Timer(std::function<void()> callback, std::chrono::milliseconds period, bool expireOnce);
    ~Timer();
    Timer(Timer const&) = delete;
    Timer& operator=(Timer const&) = delete;

    std::mutex& mutex();
    bool& once;
    void setPeriod(std::chrono::milliseconds period, std::unique_lock<std::mutex>& lock);
    void restart(std::unique_lock<std::mutex>& lock);
    void stop();
    void terminate();
};

struct Binder {
    enum class Error : std::uint8_t {
        SUCCESS = 0,
        FAILED = 1,
        BUSY = 2,
        TIMEOUT = 3,
        NO_SERVER = 4,
        ALREADY_BOUND = 5,
        NOT_BOUND = 6,
        REFUSED = 7,
        NOT_SYNCHRONIZED = 8,
        CANCELLED = 9
    };
};

class BinderProxy {
public:
    class Listener {
    public:
        virtual void onBound(Binder::Error error) = 0;
        virtual void onUnbound(Binder::Error error) = 0;

    protected:
        ~Listener() = default;
    };

    BinderProxy(Uuid const& uuid, Listener* listener);
    virtual ~BinderProxy();

    virtual std::uint32_t timeBase() const = 0;
    virtual void terminate();
    virtual Binder::Error bindSync(Uuid const& server, conv::SecondsDuration const& timeout) = 0;
    virtual Binder::Error bind(Uuid const& server, conv::SecondsDuration const& timeout) = 0;
    virtual Binder::Error unbindSync(conv::SecondsDuration const& timeout) = 0;
    virtual Binder::Error unbind(conv::SecondsDuration const& timeout) = 0;
    virtual void forceTimeBaseSync() = 0;
    virtual bool isTimeBaseSynchronized() const = 0;

protected:
    Uuid const& uuid() const;
    Uuid serverUuid() const;
    bool isTerminated() const;
    Binder::Error startBinding(Uuid const& server);
    void endBinding(Binder::Error error);
    Binder::Error startUnbinding();
    void endUnbinding(Binder::Error error);
};

class SynchronizedTimeBase {
public:
    virtual std::uint32_t timeBase() const = 0;
    virtual ~SynchronizedTimeBase();
};

class SynchronizedTimeBaseAdaptor : public SynchronizedTimeBase {
public:
    SynchronizedTimeBaseAdaptor();
    ~SynchronizedTimeBaseAdaptor() override;

    virtual double localTimeBase() const = 0;

protected:
    bool setTerminatedFlag();
};

class SynchronizedTimeBaseProxy : public SynchronizedTimeBase {
public:
    class Listener {
    public:
        virtual void onTimeSynchronized() = 0;

    protected:
        ~Listener() = default;
    };

    SynchronizedTimeBaseProxy(Uuid const& uuid, Listener* listener);
    ~SynchronizedTimeBaseProxy() override;

    virtual void terminate() = 0;
    virtual void registerListener(Listener* listener);
    virtual bool startSync(Uuid const& server) = 0;
    virtual bool synchronize(Uuid const& server, conv::SecondsDuration const& timeout) = 0;
    virtual bool stop() = 0;
    virtual void forceSync() = 0;
    virtual double localTimeBase() const = 0;

    bool isSynchronized() const;

protected:
    virtual void notifyListener();
    void setSynchronizedFlag(bool synchronized);
    bool setTerminatedFlag();
    Uuid const& uuid() const;
    Uuid serverUuid() const;
    void setServerUuid(Uuid const& server);
};

namespace test {

void sleep(unsigned milliseconds);

} // namespace test

namespace lwjson {

class Serializer {
public:
    explicit Serializer(std::string& json);
    explicit Serializer(std::string const& finishedText);

    void appendKey(char const* key);
    void appendValue(char const* rawText);
    void addValue(std::string const& text);
    void addValue(double number);
    void addValue(conv::UnixTime const& time);
    void addValue(Serializer const& object);
    void addValue(std::vector<Serializer> const& objects);
    std::string& mutableJson();
    void finalize();
};

class Deserializer {
public:
    explicit Deserializer(std::string const& text);

    char const* getMember(char const* key) const;
    static void extractValue(char const* text, std::string& out, char const* extra);
    static void extractValue(char const* text, unsigned char& out, char const* extra);
    static void extractValue(char const* text, unsigned int& out, char const* extra);
    static void extractValue(char const* text, double& out, char const* extra);
    static void extractValue(char const* text, conv::UnixTime& out, char const* extra);
};

} // namespace lwjson

} // namespace zym::common
