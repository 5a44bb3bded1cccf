// Clients in a process that has more descriptors than select() knows.

#include "mqtt/test/broker.hpp"
#include "mqtt/test/recorder.hpp"
#include "mqtt/test/test_client.hpp"
#include "net/file_descriptor.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/select.h>

namespace {

using conv::ComState;
using mqtt::MqttClient;
using mqtt::test::FileDescriptor;
using Error = MqttClient::Error;

constexpr unsigned WAIT_SECONDS = 30;

/// Opens descriptors until one is beyond those that select() can handle, or none is left.
std::vector<FileDescriptor> takeLowDescriptors() {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    std::vector<FileDescriptor> taken;
    do {
        taken.emplace_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    } while (taken.back().valid() && taken.back().get() < FD_SETSIZE);
    return taken;
}

void expectToWork(MqttClient& client, mqtt::test::Broker& broker) {
    mqtt::test::MessageRecorder recorder;
    mqtt::test::StateRecorder states;
    ASSERT_EQ(client.connect("", -1, WAIT_SECONDS), Error::SUCCESS);
    ASSERT_EQ(client.subscribe("a", &recorder, 0), Error::SUCCESS);
    for (int const qos : {0, 1, 2}) {
        EXPECT_EQ(client.publishWait("a", std::to_string(qos), qos, false, WAIT_SECONDS),
                  Error::SUCCESS);
    }
    EXPECT_TRUE(recorder.waitForCount(3));
    EXPECT_EQ(client.unsubscribeWait("a", &recorder, WAIT_SECONDS), Error::SUCCESS);
    client.registerListener(&states);
    broker.kill();
    EXPECT_TRUE(states.waitFor(ComState::CONNECTION_LOST));
    broker.start();
    EXPECT_TRUE(states.waitFor(ComState::CONNECTED));
    EXPECT_EQ(client.disconnect(WAIT_SECONDS), Error::SUCCESS);
    client.unregisterListener(&states);
}

TEST(AClientAmongManyDescriptors, WorksMadeBeforeThemOrAfterThem) {
    mqtt::test::ClientOptions options;
    options.connect = false;
    mqtt::test::Broker broker;
    auto const before = mqtt::test::testClient(broker, options);
    auto const low = takeLowDescriptors();
    if (!low.back().valid()) {
        GTEST_SKIP() << "this process may not have so many";
    }
    expectToWork(*before, broker);
    expectToWork(*mqtt::test::testClient(broker, options), broker);
}

} // namespace
