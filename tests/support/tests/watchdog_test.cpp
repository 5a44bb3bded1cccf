#include "support/watchdog.hpp"

#include "support/process.hpp"
#include "support/temp_dir.hpp"

#include <gmock/gmock.h>

#include <string>

namespace {

using support::Process;
using testing::HasSubstr;

/// A run of the victim program, limited to one second.
class Victim {
public:
    explicit Victim(std::string const& test)
        : process({"/bin/sh", "-c",
                   "ZYM_TEST_LIMIT=1 TMPDIR=" + directory_.path() + " exec " + WATCHDOG_VICTIM
                       + " --gtest_filter=" + test},
                  directory_.file("output")) {}

    std::string output() const { return directory_.read("output"); }
    /// The process of its broker; 0 while there is none.
    int broker() const {
        std::string const text = output();
        auto const at = text.find("broker process ");
        return at == std::string::npos || text.find('\n', at) == std::string::npos
                   ? 0
                   : std::stoi(text.substr(at + 15));
    }

private:
    support::TempDir directory_;

public:
    Process process;
};

TEST(AWatchdog, EndsAHungTestByNameWithItsBrokerAndPrintsTheBrokersLog) {
    Victim victim("AVictim.HangsWithABroker");
    ASSERT_TRUE(victim.process.waitForEnd());
    EXPECT_NE(victim.process.status(), 0);
    EXPECT_THAT(victim.output(), HasSubstr("AVictim.HangsWithABroker FAILED: it hangs"));
    EXPECT_THAT(victim.output(), HasSubstr("end of its log"));
    ASSERT_GT(victim.broker(), 0) << victim.output();
    EXPECT_TRUE(support::eventually([&] { return !support::isAlive(victim.broker()); }));
}

TEST(AWatchdog, ShowsWhereTheTestHangs) {
    Victim victim("AVictim.Hangs");
    ASSERT_TRUE(victim.process.waitForEnd());
    EXPECT_THAT(victim.output(), HasSubstr("hangForEver"));
}

TEST(AWatchdog, NoticesAFixtureThatHangsInItsDestructor) {
    Victim victim("AVictimThatHangsInItsDestructor.IsNoticedToo");
    ASSERT_TRUE(victim.process.waitForEnd());
    EXPECT_THAT(victim.output(), HasSubstr("IsNoticedToo FAILED: it hangs"));
}

TEST(AWatchdog, LetsATestPassThatEndsInTime) {
    Victim victim("AVictim.Passes");
    ASSERT_TRUE(victim.process.waitForEnd());
    EXPECT_EQ(victim.process.status(), 0) << victim.output();
}

TEST(AKilledTestProgram, TakesItsBrokerAlong) {
    Victim victim("AVictim.HangsWithABroker");
    ASSERT_TRUE(support::eventually([&] { return victim.broker() > 0; }));
    victim.process.kill();
    EXPECT_TRUE(support::eventually([&] { return !support::isAlive(victim.broker()); }));
}

} // namespace
