#include "client/broker_library.hpp"

#include <mosquittopp.h>

#include <stdexcept>
#include <string>

namespace mqtt {

namespace {

// Later minor versions have the same SONAME, so the loader accepts them, but another layout of the
// class that we derive from: no call of its members would be safe. `lib_version` is a plain
// function.
void requireKnownLayout() {
    int major = 0;
    int minor = 0;
    int revision = 0;
    mosqpp::lib_version(&major, &minor, &revision);
    if (major == LIBMOSQUITTO_MAJOR && minor == LIBMOSQUITTO_MINOR) {
        return;
    }
    throw std::runtime_error("libzym-mqtt needs libmosquittopp 2.0.x, but version "
                             + std::to_string(major) + "." + std::to_string(minor) + "."
                             + std::to_string(revision)
                             + " was loaded, whose class layout is another");
}

} // namespace

void prepareBrokerLibrary() {
    requireKnownLayout();
    // `lib_cleanup` is never called: the library keeps nothing that its clients do not own.
    static int const initialised = mosqpp::lib_init();
    static_cast<void>(initialised);
}

} // namespace mqtt
