#include "support/process.hpp"

#include "support/temp_dir.hpp"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <fstream>
#include <memory>
#include <string>
#include <thread>

namespace {

using support::Process;

class AProcess : public testing::Test {
protected:
    std::string output() const {
        std::ifstream file(directory_.file("output"));
        return {std::istreambuf_iterator<char>(file), {}};
    }

    std::unique_ptr<Process> shell(std::string const& script,
                                   std::vector<std::string> const& environment = {}) {
        return std::make_unique<Process>(std::vector<std::string>{"/bin/sh", "-c", script},
                                         directory_.file("output"), environment);
    }

    support::TempDir directory_;
};

TEST_F(AProcess, TellsItsExitStatusAndItsOutput) {
    auto const process = shell("echo to out; echo to err >&2; exit 3");
    ASSERT_TRUE(process->waitForEnd());
    EXPECT_TRUE(WIFEXITED(process->status()));
    EXPECT_EQ(WEXITSTATUS(process->status()), 3);
    EXPECT_EQ(output(), "to out\nto err\n");
}

TEST_F(AProcess, SeesTheVariablesItWasGivenInPlaceOfOurs) {
    auto const process = shell("echo $HOME", {"HOME=/elsewhere"});
    ASSERT_TRUE(process->waitForEnd());
    EXPECT_EQ(output(), "/elsewhere\n");
}

TEST_F(AProcess, EndsWithItsObject) {
    auto process = shell("exec sleep 1000");
    pid_t const pid = process->pid();
    EXPECT_TRUE(support::isAlive(pid));
    process.reset();
    EXPECT_FALSE(support::isAlive(pid));
}

TEST_F(AProcess, OutlivesTheThreadThatStartedIt) {
    std::unique_ptr<Process> process;
    std::thread([&] { process = shell("exec sleep 1000"); }).join();
    // The signal of a parent's death would be there before that of a later sender.
    process->suspend();
    EXPECT_FALSE(process->ended());
}

TEST_F(AProcess, EndsWith127WhenThereIsNoSuchProgram) {
    Process process({"/there/is/no/such/program"}, directory_.file("output"));
    ASSERT_TRUE(process.waitForEnd());
    EXPECT_EQ(WEXITSTATUS(process.status()), 127);
}

TEST_F(AProcess, StandsStillWhileSuspended) {
    auto const process = shell("trap 'echo alive' TERM; echo ready; while :; do sleep 0.01; done");
    ASSERT_TRUE(support::eventually([&] { return output() == "ready\n"; }));
    process->suspend();
    process->signal(SIGTERM);
    EXPECT_FALSE(
        support::eventually([&] { return output() != "ready\n"; }, std::chrono::milliseconds(100)));
    process->resume();
    EXPECT_TRUE(support::eventually([&] { return output() == "ready\nalive\n"; }));
}

} // namespace
