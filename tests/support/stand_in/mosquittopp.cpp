// The broker library's class, implemented by a script. It has only what this project calls: a
// program that calls more does not link.

#include "support/allocations.hpp"
#include "support/stand_in/stand_in.hpp"

namespace mosqpp {

using support::StandIn;
using Operation = StandIn::Operation;

namespace {

// The only member of the class is a pointer to the C library's client: here, to the script.
StandIn& scriptOf(mosquitto* member) {
    return *reinterpret_cast<StandIn*>(member);
}

int run(mosquitto* member, Operation operation, char const* topic = nullptr, int size = 0,
        void const* payload = nullptr, int qos = 0, bool retain = false, int* mid = nullptr,
        int keepAlive = 0) {
    support::UncountedAllocations const ours;
    auto const* const bytes = static_cast<char const*>(payload);
    StandIn::Call call{operation, topic ? topic : "", std::string(bytes, bytes + size), qos,
                       retain};
    call.keepAlive = keepAlive;
    return scriptOf(member).run(std::move(call), mid);
}

} // namespace

int lib_init() {
    ++StandIn::libraryInitialisations();
    return mosquitto_lib_init();
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

int mosquittopp::connect(char const* host, int port, int keepalive) {
    return run(m_mosq, Operation::CONNECT, host, 0, nullptr, port, false, nullptr, keepalive);
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
