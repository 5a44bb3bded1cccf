// Which versions of the broker library a client works with, and how the library is initialised.

#include "client/client_on_a_script.hpp"

#include <gmock/gmock.h>

#include <stdexcept>

namespace {

using support::StandIn;
using testing::AllOf;
using testing::HasSubstr;

class AClientMade : public testing::Test {
protected:
    static std::string failureWith(StandIn::Version version) {
        StandIn::setLibraryVersion(version);
        try {
            mqtt::MqttClient(support::uniqueId(), false, "", "host", 1883, false);
        } catch (std::runtime_error const& error) {
            return error.what();
        }
        return {};
    }
};

TEST_F(AClientMade, WithAnyRevisionOfTheKnownLibraryIsUsable) {
    auto const real = StandIn::libraryVersion();
    for (StandIn::Version const version :
         {StandIn::Version{2, 0, 0}, {2, 0, 11}, {2, 0, 22}, {2, 0, 100}, real}) {
        EXPECT_EQ(failureWith(version), "") << version.minor << "." << version.revision;
    }
}

TEST_F(AClientMade, WithAnotherLibraryFailsWithTheReasonAndLeavesTheLibraryAlone) {
    int const initialisations = StandIn::libraryInitialisations();
    for (StandIn::Version const version :
         {StandIn::Version{1, 6, 15}, {2, 1, 3}, {2, 10, 0}, {3, 0, 0}}) {
        auto const number = std::to_string(version.major) + "." + std::to_string(version.minor)
                            + "." + std::to_string(version.revision);
        EXPECT_THAT(failureWith(version), AllOf(HasSubstr("needs libmosquittopp 2.0.x"),
                                                HasSubstr("version " + number + " was loaded")));
    }
    EXPECT_EQ(StandIn::libraryInitialisations(), initialisations);
    EXPECT_EQ(StandIn::last(), nullptr) << "the base was made";
}

TEST_F(AClientMade, FindsTheLibraryInitialisedOnce) {
    for (int i = 0; i < 3; ++i) {
        mqtt::MqttClient const client(support::uniqueId(), false, "", "host", 1883, false);
        EXPECT_EQ(StandIn::last()->initialisations(), 1) << i;
    }
}

} // namespace
