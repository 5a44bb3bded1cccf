#include "client/broker_library.hpp"

#include <mosquittopp.h>

#include <stdexcept>
#include <string>

namespace mqtt {

namespace {

// Later minor versions keep the SONAME, so the loader takes them, but lay out the class that we
// derive from differently: every call through it would go astray. Asking is a plain function.
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
    // Never cleaned up: the library has no state that outlives its clients.
    static int const initialised = mosqpp::lib_init();
    static_cast<void>(initialised);
}

} // namespace mqtt
