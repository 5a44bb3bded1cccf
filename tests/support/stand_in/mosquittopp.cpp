// The broker library's class, made anew over a script. Only what this project could call is
// here: a program that needs more does not link, and that is how one learns of it.

#include "support/allocations.hpp"
#include "support/stand_in/stand_in.hpp"

#include <mosquittopp.h>

namespace mosqpp {

using support::StandIn;
using Operation = StandIn::Operation;

namespace {

// The only member of the class is a pointer to the C library's client. We put ours there.
StandIn* scriptOf(mosquitto* member) {
    return reinterpret_cast<StandIn*>(member);
}

std::string textOf(char const* text) {
    return text ? text : "";
}

std::string bytesOf(void const* bytes, int size) {
    return size > 0 ? std::string(static_cast<char const*>(bytes), static_cast<std::size_t>(size))
                    : std::string();
}

StandIn::Call callOf(Operation operation, char const* topic = nullptr) {
    StandIn::Call call;
    call.operation = operation;
    call.topic = textOf(topic);
    return call;
}

StandIn::Call callOf(Operation operation, char const* topic, int size, void const* payload, int qos,
                     bool retain) {
    StandIn::Call call = callOf(operation, topic);
    call.payload = bytesOf(payload, size);
    call.qos = qos;
    call.retain = retain;
    return call;
}

} // namespace

int lib_init() {
    ++StandIn::libraryInitialisations();
    return mosquitto_lib_init();
}

int lib_cleanup() {
    return mosquitto_lib_cleanup();
}

char const* strerror(int code) {
    return mosquitto_strerror(code);
}

char const* connack_string(int code) {
    return mosquitto_connack_string(code);
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

int validate_utf8(char const* text, int length) {
    return mosquitto_validate_utf8(text, length);
}

mosquittopp::mosquittopp(char const* id, bool clean_session)
    : m_mosq(reinterpret_cast<mosquitto*>(StandIn::make(*this, id, clean_session))) {}

mosquittopp::~mosquittopp() {
    StandIn::bury(scriptOf(m_mosq));
}

int mosquittopp::socket() {
    StandIn& script = *scriptOf(m_mosq);
    std::lock_guard<std::mutex> lock(script.mutex_);
    return script.socket_;
}

int mosquittopp::will_set(char const* topic, int payloadlen, void const* payload, int qos,
                          bool retain) {
    return scriptOf(m_mosq)->run(
        callOf(Operation::WILL_SET, topic, payloadlen, payload, qos, retain), nullptr);
}

int mosquittopp::will_clear() {
    return scriptOf(m_mosq)->run(callOf(Operation::WILL_CLEAR), nullptr);
}

int mosquittopp::connect(char const* host, int port, int keepalive) {
    support::UncountedAllocations const ours;
    StandIn::Call call = callOf(Operation::CONNECT, host);
    call.qos = port;
    call.keepAlive = keepalive;
    return scriptOf(m_mosq)->run(call, nullptr);
}

int mosquittopp::reconnect() {
    return scriptOf(m_mosq)->run(callOf(Operation::RECONNECT), nullptr);
}

int mosquittopp::disconnect() {
    support::UncountedAllocations const ours;
    return scriptOf(m_mosq)->run(callOf(Operation::DISCONNECT), nullptr);
}

int mosquittopp::publish(int* mid, char const* topic, int payloadlen, void const* payload, int qos,
                         bool retain) {
    support::UncountedAllocations const ours;
    return scriptOf(m_mosq)->run(
        callOf(Operation::PUBLISH, topic, payloadlen, payload, qos, retain), mid);
}

int mosquittopp::subscribe(int* mid, char const* sub, int qos) {
    support::UncountedAllocations const ours;
    StandIn::Call call = callOf(Operation::SUBSCRIBE, sub);
    call.qos = qos;
    return scriptOf(m_mosq)->run(call, mid);
}

int mosquittopp::unsubscribe(int* mid, char const* sub) {
    support::UncountedAllocations const ours;
    return scriptOf(m_mosq)->run(callOf(Operation::UNSUBSCRIBE, sub), mid);
}

int mosquittopp::threaded_set(bool /*threaded*/) {
    return scriptOf(m_mosq)->run(callOf(Operation::THREADED_SET), nullptr);
}

int mosquittopp::opts_set(mosq_opt_t /*option*/, void* /*value*/) {
    return 0;
}

int mosquittopp::max_inflight_messages_set(unsigned /*count*/) {
    return 0;
}

int mosquittopp::loop(int timeout, int /*max_packets*/) {
    return scriptOf(m_mosq)->loop(timeout);
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
