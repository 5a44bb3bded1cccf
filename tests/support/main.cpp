#include "support/watchdog.hpp"

#include <gmock/gmock.h>

int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv); // initialises GoogleTest too
    support::Watchdog const watchdog;
    return RUN_ALL_TESTS();
}
