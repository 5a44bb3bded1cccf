// Each small program in examples/ does what it shows.

#include "mqtt/test/broker.hpp"

#include <gmock/gmock.h>

#include <cstdio>
#include <ostream>
#include <string>

namespace {

struct Case {
    std::string name;
    std::string command; ///< $ADDRESS is the broker's host and port
    std::string output;  ///< a part of it
};

std::ostream& operator<<(std::ostream& out, Case const& program) {
    return out << program.name;
}

class ASmallExample : public testing::TestWithParam<Case> {
protected:
    /// What the command prints; ends with its exit code.
    std::string run(std::string const& command) const {
        std::string const shell = "cd '" ZYM_EXAMPLES "' && ADDRESS='" + broker.host() + " "
                                  + std::to_string(broker.port()) + "' && { " + command
                                  + "; } 2>&1; echo \"exit code $?\"";
        std::FILE* const pipe = popen(shell.c_str(), "r");
        std::string text;
        for (int next = std::fgetc(pipe); next != EOF; next = std::fgetc(pipe)) {
            text += static_cast<char>(next);
        }
        pclose(pipe);
        return text;
    }

    mqtt::test::Broker const broker;
};

TEST_P(ASmallExample, DoesWhatItShows) {
    auto const output = run(GetParam().command);
    EXPECT_THAT(output, testing::HasSubstr(GetParam().output));
    EXPECT_THAT(output, testing::EndsWith("exit code 0\n"));
}

INSTANTIATE_TEST_SUITE_P(
    Programs, ASmallExample,
    testing::Values(
        Case{"publish", "echo 21.5 | ./publish $ADDRESS", "published 21.5: SUCCESS\n"},
        // The pipe ends the input of the second program when its line is there.
        Case{"subscribe",
             "echo 21.5 | ./publish $ADDRESS && PIPE=$(mktemp -u) && mkfifo $PIPE && "
             "./subscribe $ADDRESS <$PIPE | "
             "{ exec 3>$PIPE; rm $PIPE; grep -m 1 demo/line; echo >&3; cat; }",
             "demo/line: 21.5\n"},
        Case{"value", "./value $ADDRESS", "waited for 12.5: SUCCESS\n"},
        Case{"service", "./service $ADDRESS", "drawn 60 litres, 40 left\nrefused: not enough\n"},
        Case{"binding", "./bound_device $ADDRESS", "bound; the time of the device is "},
        Case{"discovery", "./discovery $ADDRESS", "found the pump by Pumps & Sons at demo/pumps/"},
        Case{"test", "./thermostat_test", "passed\n"}),
    [](auto const& program) { return program.param.name; });

} // namespace
