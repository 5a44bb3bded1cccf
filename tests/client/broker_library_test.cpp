// Which versions of the broker library a client works with, and how the library is initialised.

#include "client/client_on_a_script.hpp"

#include <gmock/gmock.h>

#include <csignal>
#include <stdexcept>
#include <utility>

namespace {

using support::StandIn;
using testing::AllOf;
using testing::HasSubstr;

class AClientMade : public testing::Test {
protected:
    ~AClientMade() override { StandIn::setLibraryVersion(version_); }

    static std::string failureWith(StandIn::Version version) {
        StandIn::setLibraryVersion(version);
        try {
            mqtt::MqttClient(mqtt::test::uniqueId(), false, "", "host", 1883, false);
        } catch (std::runtime_error const& error) {
            return error.what();
        }
        return {};
    }

    StandIn::Version const version_ = StandIn::libraryVersion();
};

TEST_F(AClientMade, WithAnyRevisionOfTheVersionCompiledAgainstIsUsable) {
    for (int const revision : {0, 11, 22, 100, version_.revision}) {
        EXPECT_EQ(failureWith({LIBMOSQUITTO_MAJOR, LIBMOSQUITTO_MINOR, revision}), "") << revision;
    }
}

TEST_F(AClientMade, WithAnotherLibraryFailsWithBothVersionsAndLeavesTheLibraryAlone) {
    std::string const compiledFor =
        "compiled for libmosquittopp 2." + std::to_string(LIBMOSQUITTO_MINOR) + ".x";
    int const initialisations = StandIn::libraryInitialisations();
    auto const last = StandIn::last();
    for (StandIn::Version const version : {StandIn::Version{1, LIBMOSQUITTO_MINOR, 15},
                                           {2, 1 - LIBMOSQUITTO_MINOR, 3},
                                           {2, 2, 0},
                                           {2, 10, 0},
                                           {3, LIBMOSQUITTO_MINOR, 0}}) {
        auto const number = std::to_string(version.major) + "." + std::to_string(version.minor)
                            + "." + std::to_string(version.revision);
        EXPECT_THAT(failureWith(version),
                    AllOf(HasSubstr(compiledFor), HasSubstr("version " + number + " was loaded")));
    }
    EXPECT_EQ(StandIn::libraryInitialisations(), initialisations);
    EXPECT_EQ(StandIn::last(), last) << "the base was made";
}

TEST_F(AClientMade, MakesTheProcessIgnoreBrokenPipesUnlessItHandlesThem) {
    auto const handler = [](int /*signal*/) {};
    for (auto const& [before, after] : {std::pair<sighandler_t, sighandler_t>{SIG_DFL, SIG_IGN},
                                        {SIG_IGN, SIG_IGN},
                                        {handler, handler}}) {
        std::signal(SIGPIPE, before);
        EXPECT_EQ(failureWith(version_), "");
        EXPECT_EQ(std::signal(SIGPIPE, SIG_IGN), after);
    }
}

TEST_F(AClientMade, FindsTheLibraryInitialisedOnce) {
    for (int i = 0; i < 3; ++i) {
        mqtt::MqttClient const client(mqtt::test::uniqueId(), false, "", "host", 1883, false);
        EXPECT_EQ(StandIn::last()->initialisations(), 1) << i;
    }
}

} // namespace
