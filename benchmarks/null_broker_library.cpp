// In the place of the broker library's class: a broker that consents at once, takes everything and
// sends nothing. What is measured over it is our own part.

#include <mosquittopp.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace mosqpp {

namespace {

/// One network step at a time, and what it has to do.
struct Line {
    std::mutex mutex;
    std::condition_variable changed;
    bool calling = false;
    bool leaving = false;
    bool connected = false;
};

Line& line() {
    static Line instance;
    return instance;
}

int order(bool Line::*what) {
    std::lock_guard<std::mutex> const lock(line().mutex);
    line().*what = true;
    line().changed.notify_all();
    return MOSQ_ERR_SUCCESS;
}

} // namespace

int lib_init() {
    return mosquitto_lib_init();
}

int lib_version(int* major, int* minor, int* revision) {
    return mosquitto_lib_version(major, minor, revision);
}

char const* strerror(int code) {
    return mosquitto_strerror(code);
}

int topic_matches_sub(char const* pattern, char const* topic, bool* result) {
    return mosquitto_topic_matches_sub(pattern, topic, result);
}

int validate_utf8(char const* text, int length) {
    return mosquitto_validate_utf8(text, length);
}

mosquittopp::mosquittopp(char const* /*id*/, bool /*clean*/) {}

mosquittopp::~mosquittopp() = default;

int mosquittopp::connect(char const* /*host*/, int /*port*/, int /*keepAlive*/) {
    return order(&Line::calling);
}

int mosquittopp::reconnect() {
    return order(&Line::calling);
}

int mosquittopp::disconnect() {
    return order(&Line::leaving);
}

int mosquittopp::loop(int timeout, int /*packets*/) {
    std::unique_lock<std::mutex> lock(line().mutex);
    line().changed.wait_for(lock, std::chrono::milliseconds(timeout),
                            [] { return line().calling || line().leaving; });
    if (line().leaving) {
        line().leaving = line().connected = false;
        lock.unlock();
        on_disconnect(0);
        return MOSQ_ERR_NO_CONN;
    }
    if (line().calling) {
        line().calling = false;
        line().connected = true;
        lock.unlock();
        on_connect(0);
        return MOSQ_ERR_SUCCESS;
    }
    return line().connected ? MOSQ_ERR_SUCCESS : MOSQ_ERR_NO_CONN;
}

int mosquittopp::publish(int* id, char const* /*topic*/, int /*size*/, void const* /*payload*/,
                         int /*qos*/, bool /*retain*/) {
    if (id != nullptr) {
        *id = 1;
    }
    return MOSQ_ERR_SUCCESS;
}

int mosquittopp::subscribe(int* id, char const* /*pattern*/, int /*qos*/) {
    return publish(id, nullptr, 0, nullptr, 0, false);
}

int mosquittopp::unsubscribe(int* id, char const* /*pattern*/) {
    return publish(id, nullptr, 0, nullptr, 0, false);
}

int mosquittopp::socket() {
    return -1;
}
int mosquittopp::threaded_set(bool /*threaded*/) {
    return MOSQ_ERR_SUCCESS;
}
int mosquittopp::will_set(char const* /*topic*/, int /*size*/, void const* /*payload*/, int /*qos*/,
                          bool /*retain*/) {
    return MOSQ_ERR_SUCCESS;
}
int mosquittopp::will_clear() {
    return MOSQ_ERR_SUCCESS;
}
int mosquittopp::loop_read(int /*packets*/) {
    return MOSQ_ERR_SUCCESS;
}
int mosquittopp::loop_write(int /*packets*/) {
    return MOSQ_ERR_SUCCESS;
}
int mosquittopp::loop_misc() {
    return MOSQ_ERR_SUCCESS;
}
bool mosquittopp::want_write() {
    return false;
}

} // namespace mosqpp
