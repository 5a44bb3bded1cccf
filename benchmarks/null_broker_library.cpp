// Takes the place of the broker library's class in a program over the shared library: a broker that
// accepts at once, takes everything and sends nothing. What is measured over it is our own part.
// The library's own operations that are not replaced here get no client, and refuse.

#include <mosquittopp.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace mosqpp {
namespace {

/// What the next network step does.
enum class Step { NOTHING, CONNECT, DISCONNECT };

std::mutex stepMutex;
std::condition_variable stepChanged;
Step nextStep = Step::NOTHING;
bool isConnected = false;

int schedule(Step step) {
    std::lock_guard<std::mutex> const lock(stepMutex);
    nextStep = step;
    stepChanged.notify_all();
    return MOSQ_ERR_SUCCESS;
}

Step takeStep(int timeoutMs) {
    std::unique_lock<std::mutex> lock(stepMutex);
    stepChanged.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                         [] { return nextStep != Step::NOTHING; });
    Step const step = nextStep;
    nextStep = Step::NOTHING;
    if (step != Step::NOTHING) {
        isConnected = step == Step::CONNECT;
    }
    return step;
}

} // namespace

mosquittopp::mosquittopp(char const* /*id*/, bool /*clean*/) : m_mosq(nullptr) {}

mosquittopp::~mosquittopp() = default;

int mosquittopp::threaded_set(bool /*threaded*/) {
    return MOSQ_ERR_SUCCESS;
}

int mosquittopp::connect(char const* /*host*/, int /*port*/, int /*keepAlive*/) {
    return schedule(Step::CONNECT);
}

int mosquittopp::disconnect() {
    return schedule(Step::DISCONNECT);
}

int mosquittopp::loop(int timeoutMs, int /*packets*/) {
    switch (takeStep(timeoutMs)) {
    case Step::CONNECT:
        on_connect(0);
        break;
    case Step::DISCONNECT:
        on_disconnect(0);
        break;
    case Step::NOTHING:
        break;
    }
    return isConnected ? MOSQ_ERR_SUCCESS : MOSQ_ERR_NO_CONN;
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
