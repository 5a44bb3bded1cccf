// Which versions of the broker library a client can be made of.

#include "support/stand_in/stand_in.hpp"
#include "support/test_client.hpp"

#include <mqtt/client.hpp>

#include <gmock/gmock.h>
#include <mosquittopp.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace {

using support::StandIn;
using testing::HasSubstr;
using testing::IsEmpty;

std::unique_ptr<mqtt::MqttClient> aClient() {
    support::ClientOptions options;
    options.connect = false;
    return support::testClient("host", 1883, options);
}

/// What making a client throws; empty when it throws nothing.
std::string complaint() {
    try {
        aClient();
    } catch (std::runtime_error const& error) {
        return error.what();
    }
    return {};
}

class AClientOnAnUnknownLibrary : public testing::Test {
protected:
    ~AClientOnAnUnknownLibrary() override { StandIn::setLibraryVersion({2, 0, 11}); }
};

class AClientOnAKnownLibrary : public AClientOnAnUnknownLibrary {};

TEST_F(AClientOnAnUnknownLibrary, SaysWhichVersionItFoundAndWhichItNeeds) {
    StandIn::setLibraryVersion({2, 1, 3});
    EXPECT_THAT(complaint(), HasSubstr("needs libmosquittopp 2.0.x"));
    EXPECT_THAT(complaint(), HasSubstr("version 2.1.3 was loaded"));
}

TEST_F(AClientOnAnUnknownLibrary, IsNotMadeOfAnEarlierOrLaterVersion) {
    for (StandIn::Version const version :
         {StandIn::Version{1, 6, 15}, {2, 1, 0}, {2, 10, 0}, {3, 0, 0}}) {
        StandIn::setLibraryVersion(version);
        EXPECT_THROW(aClient(), std::runtime_error) << version.major << "." << version.minor;
    }
}

TEST_F(AClientOnAnUnknownLibrary, LeavesTheLibraryAlone) {
    int const initialisations = StandIn::libraryInitialisations();
    auto const last = StandIn::last();
    StandIn::setLibraryVersion({2, 1, 0});
    EXPECT_THROW(aClient(), std::runtime_error);
    EXPECT_EQ(StandIn::libraryInitialisations(), initialisations);
    EXPECT_EQ(StandIn::last(), last) << "the base was made";
}

TEST_F(AClientOnAKnownLibrary, IsMadeOfEveryRevision) {
    for (int const revision : {0, 11, 22, 100}) {
        StandIn::setLibraryVersion({2, 0, revision});
        EXPECT_THAT(complaint(), IsEmpty()) << revision;
    }
}

TEST_F(AClientOnAKnownLibrary, IsMadeOfTheRealOne) {
    int major = 0;
    int minor = 0;
    int revision = 0;
    mosquitto_lib_version(&major, &minor, &revision);
    StandIn::setLibraryVersion({major, minor, revision});
    EXPECT_THAT(complaint(), IsEmpty());
}

} // namespace
