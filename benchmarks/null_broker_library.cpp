// Takes the place of the broker library's class in a program over the shared library: a broker that
// accepts at once, takes everything and sends nothing. What is measured over it is our own part.
// The library's own operations that are not replaced here get no client, and refuse.

#include <mosquittopp.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace mosqpp {
namespace {

std::mutex connectionMutex;
std::condition_variable connectionCalled;
bool mustAccept = false;

} // namespace

mosquittopp::mosquittopp(char const* /*id*/, bool /*clean*/) : m_mosq(nullptr) {}

mosquittopp::~mosquittopp() = default;

int mosquittopp::threaded_set(bool /*threaded*/) {
    return MOSQ_ERR_SUCCESS;
}

int mosquittopp::connect(char const* /*host*/, int /*port*/, int /*keepAlive*/) {
    std::lock_guard<std::mutex> const lock(connectionMutex);
    mustAccept = true;
    connectionCalled.notify_all();
    return MOSQ_ERR_SUCCESS;
}

int mosquittopp::disconnect() {
    return MOSQ_ERR_NO_CONN;
}

int mosquittopp::loop(int timeoutMs, int /*packets*/) {
    std::unique_lock<std::mutex> lock(connectionMutex);
    if (connectionCalled.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                  [] { return mustAccept; })) {
        mustAccept = false;
        lock.unlock();
        on_connect(0);
    }
    return MOSQ_ERR_SUCCESS;
}

int mosquittopp::publish(int* id, char const* /*topic*/, int /*size*/, void const* /*payload*/,
                         int /*qos*/, bool /*retain*/) {
    if (id != nullptr) {
        *id = 1;
    }
    return MOSQ_ERR_SUCCESS;
}

int mosquittopp::subscribe(int* /*id*/, char const* /*pattern*/, int /*qos*/) {
    return MOSQ_ERR_SUCCESS;
}

int mosquittopp::unsubscribe(int* /*id*/, char const* /*pattern*/) {
    return MOSQ_ERR_SUCCESS;
}

int mosquittopp::socket() {
    return -1;
}

bool mosquittopp::want_write() {
    return false;
}

} // namespace mosqpp
