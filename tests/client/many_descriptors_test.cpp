// Clients in a process that has more descriptors than select() knows.

#include "support/broker.hpp"
#include "support/file_descriptor.hpp"
#include "support/recorder.hpp"
#include "support/test_client.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/select.h>

namespace {

using conv::ComState;
using mqtt::MqttClient;
using support::FileDescriptor;
using Error = MqttClient::Error;

constexpr unsigned WAIT_SECONDS = 30;

/// Opens every descriptor number that select() can handle.
class AllLowDescriptors {
public:
    void take() {
        rlimit limit{};
        ::getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
        do {
            taken_.emplace_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        } while (taken_.back().valid() && taken_.back().get() < FD_SETSIZE);
    }

    bool areTaken() const { return !taken_.empty() && taken_.back().get() >= FD_SETSIZE; }

private:
    std::vector<FileDescriptor> taken_;
};

/// The parameter: whether the client is made after the low numbers are taken.
class AClientAmongManyDescriptors : public testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        support::ClientOptions options;
        options.connect = false;
        if (GetParam()) {
            low_.take();
        }
        client_ = support::testClient(broker_, options);
        if (!GetParam()) {
            low_.take();
        }
        if (!low_.areTaken()) {
            GTEST_SKIP() << "this process may not have so many";
        }
    }

    support::MessageRecorder recorder_;
    support::Broker broker_;
    AllLowDescriptors low_;
    std::unique_ptr<MqttClient> client_;
};

INSTANTIATE_TEST_SUITE_P(Made, AClientAmongManyDescriptors, testing::Bool(),
                         [](auto const& row) { return row.param ? "AfterThem" : "BeforeThem"; });

TEST_P(AClientAmongManyDescriptors, WorksAsAnyOther) {
    support::StateRecorder states;
    ASSERT_EQ(client_->connect("", -1, WAIT_SECONDS), Error::SUCCESS);
    ASSERT_EQ(client_->subscribe("a", &recorder_, 0), Error::SUCCESS);
    for (int const qos : {0, 1, 2}) {
        EXPECT_EQ(client_->publishWait("a", std::to_string(qos), qos, false, WAIT_SECONDS),
                  Error::SUCCESS);
    }
    EXPECT_TRUE(recorder_.waitForCount(3));
    EXPECT_EQ(client_->unsubscribeWait("a", &recorder_, WAIT_SECONDS), Error::SUCCESS);
    client_->registerListener(&states);
    broker_.kill();
    EXPECT_TRUE(states.waitFor(ComState::CONNECTION_LOST));
    broker_.start();
    EXPECT_TRUE(states.waitFor(ComState::CONNECTED));
    EXPECT_EQ(client_->disconnect(WAIT_SECONDS), Error::SUCCESS);
    client_.reset();
}

} // namespace
