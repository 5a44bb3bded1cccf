#include "client/broker_library.hpp"

#include "mqtt/mosquittopp.hpp"

#include <csignal>
#include <stdexcept>
#include <string>

namespace mqtt {

namespace {

std::string toText(int major, int minor) {
    return std::to_string(major) + "." + std::to_string(minor);
}

// All minor versions have the same SONAME, so the loader accepts each, but each has another layout
// of the class that we derive from: no call of its members would be safe. `lib_version` is a plain
// function.
void requireKnownLayout() {
    int major = 0;
    int minor = 0;
    int revision = 0;
    mosqpp::lib_version(&major, &minor, &revision);
    if (major == LIBMOSQUITTO_MAJOR && minor == LIBMOSQUITTO_MINOR) {
        return;
    }
    throw std::runtime_error("libzym-mqtt was compiled for libmosquittopp "
                             + toText(LIBMOSQUITTO_MAJOR, LIBMOSQUITTO_MINOR) + ".x, but version "
                             + toText(major, minor) + "." + std::to_string(revision)
                             + " was loaded, whose class layout is another");
}

/// Version 2.0 does so itself, in place of any handler. With 2.1 the signal would end the process
/// when the library closes a secure connection that is broken.
void ignoreBrokenPipes() {
    struct sigaction current {};
    ::sigaction(SIGPIPE, nullptr, &current);
    if (current.sa_handler == SIG_DFL) {
        std::signal(SIGPIPE, SIG_IGN);
    }
}

} // namespace

void prepareBrokerLibrary() {
    requireKnownLayout();
    ignoreBrokenPipes();
    // `lib_cleanup` is never called: the library keeps nothing that its clients do not own.
    static int const initialised = mosqpp::lib_init();
    static_cast<void>(initialised);
}

} // namespace mqtt
