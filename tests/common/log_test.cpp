#include "common/log.hpp"

#include "common/awaited_call.hpp"

#include <gmock/gmock.h>

#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

namespace mqtt {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

class ALog : public testing::Test {
protected:
    ~ALog() override { setLogFunction({}, LogLevel::ERROR); }

    void start(LogLevel level) {
        setLogFunction(
            [this](LogLevel l, std::string const& line) { lines_.emplace_back(l, line); }, level);
    }

    std::vector<std::pair<LogLevel, std::string>> lines_;
};

/// Fails the test when it is written.
struct NeverWritten {
    friend std::ostream& operator<<(std::ostream& out, NeverWritten const& /*part*/) {
        ADD_FAILURE() << "a text was made";
        return out;
    }
};

TEST_F(ALog, IsOffAtFirstAndMakesNoText) {
    log(LogLevel::ERROR, NeverWritten());
}

TEST_F(ALog, HasALineOfTheLevelAndThoseAboveIt) {
    start(LogLevel::WARNING);
    log(LogLevel::ERROR, "an error, ", 1);
    log(LogLevel::WARNING, "a warning");
    log(LogLevel::INFO, NeverWritten());
    EXPECT_THAT(lines_, ElementsAre(Pair(LogLevel::ERROR, "an error, 1"),
                                    Pair(LogLevel::WARNING, "a warning")));
}

TEST_F(ALog, HasNoLineEndInALine) {
    start(LogLevel::ERROR);
    log(LogLevel::ERROR, "a\nb\r\t\x1f c \xc3\xa9");
    EXPECT_THAT(lines_, ElementsAre(Pair(LogLevel::ERROR, "a?b??? c \xc3\xa9")));
}

TEST_F(ALog, EndsWithAnEmptyFunction) {
    start(LogLevel::DETAIL);
    setLogFunction({}, LogLevel::DETAIL);
    log(LogLevel::ERROR, NeverWritten());
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(ALog, DropsWhatTheFunctionThrows) {
    setLogFunction([](LogLevel, std::string const&) { throw std::runtime_error("log"); },
                   LogLevel::INFO);
    EXPECT_NO_THROW(log(LogLevel::INFO, "line"));
}

TEST_F(ALog, DoesNotCallTheLastFunctionOnceAnotherIsSet) {
    AwaitedCall call;
    setLogFunction([&](LogLevel, std::string const&) { call.run(); }, LogLevel::INFO);
    std::thread logger([] { log(LogLevel::INFO, "line"); });
    call.expectToBeAwaitedBy([] { setLogFunction({}, LogLevel::INFO); });
    logger.join();
}

} // namespace
} // namespace mqtt
