// The broker of a test, in a process that is unlike others.

#include "mqtt/test/broker.hpp"
#include "mqtt/test/temp_dir.hpp"
#include "mqtt/test/test_client.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

using mqtt::test::Broker;

TEST(ABroker, StopsAlsoIfItsProcessBlocksTheSignal) {
    sigset_t termination;
    sigemptyset(&termination);
    sigaddset(&termination, SIGTERM);
    sigset_t before;
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &termination, &before), 0);
    Broker broker;
    EXPECT_NO_THROW(broker.stop());
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &before, nullptr), 0);
}

TEST(ABroker, EncryptsInADirectoryWithABlankAndAQuotationMarkInItsName) {
    mqtt::test::TempDir const directory;
    std::string const blank = directory.file("it's a blank");
    std::filesystem::create_directory(blank);
    char const* const set = std::getenv("TMPDIR");
    std::string const before = set == nullptr ? "/tmp" : set;
    setenv("TMPDIR", blank.c_str(), 1);
    mqtt::test::BrokerOptions options;
    options.encrypted = true;
    options.persistence = true;
    EXPECT_NO_THROW(mqtt::test::testClient(Broker(options)));
    setenv("TMPDIR", before.c_str(), 1);
}

} // namespace
