#include "support/watchdog.hpp"

#include "support/process.hpp"
#include "support/temp_dir.hpp"

#include <gmock/gmock.h>

#include <sys/wait.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using support::Process;
using testing::HasSubstr;

/// The victim program with this one argument, through the emulator where there is one.
std::vector<std::string> victimCommand(std::string const& argument) {
    std::vector<std::string> command;
    std::istringstream words(WATCHDOG_VICTIM);
    for (std::string word; std::getline(words, word, ':');) {
        if (!word.empty()) {
            command.push_back(word);
        }
    }
    command.push_back(argument);
    return command;
}

/// A run of the victim program, limited to one second.
class Victim {
public:
    explicit Victim(std::string const& test)
        : process_(victimCommand("--gtest_filter=" + test), directory_.file("output"),
                   {"ZYM_TEST_LIMIT=1", "TMPDIR=" + directory_.path()}) {}

    Process& process() { return process_; }
    std::string output() const {
        std::ostringstream text;
        text << std::ifstream(directory_.file("output")).rdbuf();
        return text.str();
    }
    /// The number that follows these words in the output.
    int numberAfter(std::string const& words) const {
        std::string const text = output();
        auto const at = text.find(words);
        return at == std::string::npos ? 0 : std::stoi(text.substr(at + words.size()));
    }
    bool endedWell() { return WIFEXITED(process_.status()) && WEXITSTATUS(process_.status()) == 0; }

private:
    support::TempDir directory_;
    Process process_;
};

TEST(AWatchdog, EndsAHungTestByName) {
    Victim victim("AVictim.Hangs");
    ASSERT_TRUE(victim.process().waitForEnd());
    EXPECT_FALSE(victim.endedWell());
    EXPECT_THAT(victim.output(), HasSubstr("AVictim.Hangs FAILED: it hangs"));
}

TEST(AWatchdog, ShowsWhereTheTestHangs) {
    Victim victim("AVictim.Hangs");
    ASSERT_TRUE(victim.process().waitForEnd());
    EXPECT_THAT(victim.output(), HasSubstr("hangForEver"));
}

TEST(AWatchdog, LetsATestPassThatEndsInTime) {
    Victim victim("AVictim.Passes");
    ASSERT_TRUE(victim.process().waitForEnd());
    EXPECT_TRUE(victim.endedWell()) << victim.output();
}

TEST(AWatchdog, CountsFromTheMomentATestAsksForMoreTime) {
    Victim victim("AVictim.HangsAfterItAskedForMoreTime");
    ASSERT_TRUE(victim.process().waitForEnd());
    EXPECT_FALSE(victim.endedWell());
    EXPECT_THAT(victim.output(), HasSubstr("HangsAfterItAskedForMoreTime FAILED: it hangs"));
}

TEST(AWatchdog, NoticesAFixtureThatHangsInItsDestructor) {
    Victim victim("AVictimThatHangsInItsDestructor.IsNoticedToo");
    ASSERT_TRUE(victim.process().waitForEnd());
    EXPECT_FALSE(victim.endedWell());
    EXPECT_THAT(victim.output(), HasSubstr("IsNoticedToo FAILED: it hangs"));
}

TEST(AWatchdog, LeavesNoBrokerBehindAndPrintsItsLog) {
    Victim victim("AVictim.HangsWithABroker");
    ASSERT_TRUE(victim.process().waitForEnd());
    int const broker = victim.numberAfter("broker process ");
    ASSERT_GT(broker, 0) << victim.output();
    EXPECT_TRUE(support::eventually([&] { return !support::isAlive(broker); }));
    EXPECT_THAT(victim.output(), HasSubstr("end of its log"));
    EXPECT_THAT(victim.output(), HasSubstr("running"));
}

TEST(AKilledTestProgram, TakesItsBrokerAlong) {
    Victim victim("AVictim.HangsWithABroker");
    ASSERT_TRUE(support::eventually([&] { return victim.numberAfter(" port ") > 0; }));
    int const broker = victim.numberAfter("broker process ");
    victim.process().kill();
    EXPECT_TRUE(support::eventually([&] { return !support::isAlive(broker); }));
}

} // namespace
