// Takes the place of the broker library's class in a program over the shared library: a broker that
// accepts at once, takes everything and sends nothing. What is measured over it is our own part.
// The library's own operations that are not replaced here get no client, and refuse.

#include "mqtt/mosquittopp.hpp"

#include <atomic>
#include <chrono>
#include <thread>

namespace mosqpp {
namespace {

std::atomic<bool> mustAccept = false;

} // namespace

mosquittopp::mosquittopp(char const* /*id*/, bool /*clean*/) : m_mosq(nullptr) {}

mosquittopp::~mosquittopp() = default;

int mosquittopp::connect(char const* /*host*/, int /*port*/, int /*keepAlive*/) {
    mustAccept = true;
    return MOSQ_ERR_SUCCESS;
}

int mosquittopp::disconnect() {
    return MOSQ_ERR_NO_CONN;
}

int mosquittopp::loop(int timeoutMs, int /*packets*/) {
    if (mustAccept.exchange(false)) {
        on_connect(0);
    } else {
        std::this_thread::sleep_for(std::chrono::milliseconds(timeoutMs));
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

bool mosquittopp::want_write() {
    return false;
}

} // namespace mosqpp
