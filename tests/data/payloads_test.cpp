// Status and identification. docs/wire-format.md has their documents, and a test compares them.

#include "data/documents.hpp"

#include <mqtt/payloads.hpp>

#include <gtest/gtest.h>

#include <array>
#include <clocale>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using conv::CommunicationStatus;
using conv::ComState;
using conv::Identification;
using conv::ServiceStatus;
using conv::UnixTime;
using mqtt::MqttData;

/// All members, in the order of their keys in a document.
std::array<std::string, 10> texts(Identification const& id) {
    return {id.uuid, id.manufacturer, id.model,   id.serial,   id.physicalName,
            id.name, id.interface,    id.version, id.location, id.contact};
}

Identification const PUMP{"u-1",  "maker", "P7",  "0001", "left pump",
                          "pump", "if1",   "1.2", "hall", "desk"};

TEST(Payloads, DoNotDependOnTheLocale) {
    for (char const* const name : {"de_DE.UTF-8", "fr_FR.UTF-8", "de_DE"}) {
        if (std::setlocale(LC_ALL, name) != nullptr) {
            break;
        }
    }
    CommunicationStatus status;
    auto const text = written(CommunicationStatus{ComState::CONNECTED, UnixTime(0.5)});
    read(status, text);
    std::setlocale(LC_ALL, "C");
    EXPECT_EQ(text, "{\n  \"state\": 2,\n  \"since\": 0.5\n}");
    EXPECT_EQ(status.since.seconds, 0.5);
}

// A communication status

TEST(ACommunicationStatus, ReadsWhatItWrote) {
    CommunicationStatus status;
    for (double const moment :
         {0.0, -1.5, 1700000000.123456, 4294967295.0, std::numeric_limits<double>::max(),
          std::numeric_limits<double>::denorm_min()}) {
        read(status, written(CommunicationStatus{ComState{255}, UnixTime(moment)}));
        EXPECT_EQ(status.state, ComState{255});
        EXPECT_EQ(status.since.seconds, moment);
        EXPECT_EQ(status.since.valid, 1);
    }
}

TEST(ACommunicationStatus, TakesOverTheStateAndHasTheInvalidTimeWhereOneIsMissing) {
    struct Case {
        ComState state;
        std::string payload;
    };
    std::vector<Case> cases{
        {ComState::CONNECTING, R"({"state": 4})"},
        {ComState{200}, R"({"state": 200, "since": "now"})"},
        {ComState::CONNECTING, R"({"state": 4, "since": {}})"},
        // Without a state the old one stays, and the time is not read.
        {ComState::CONNECTED, R"({"since": 7.5})"},
    };
    for (char const* const state : {"\"4\"", "4.0", "4e0", "true", "null", "[4]", "256", "-1"}) {
        cases.push_back(
            {ComState::CONNECTED, std::string(R"({"state": )") + state + R"(, "since": 7.5})"});
    }
    for (auto const& payload : MALFORMED) {
        cases.push_back({ComState::CONNECTED, payload});
    }
    for (auto const& [state, payload] : cases) {
        SCOPED_TRACE(payload.substr(0, 60));
        CommunicationStatus status{ComState::CONNECTED, UnixTime(5)};
        EXPECT_NO_THROW(read(status, payload));
        EXPECT_EQ(status.state, state);
        EXPECT_EQ(status.since.seconds, 4294967295.0);
        EXPECT_EQ(status.since.valid, 0);
    }
}

TEST(ACommunicationStatus, IsReadFromAWholeDocumentAndUnchangedByAnEmptyPayload) {
    CommunicationStatus status{ComState::CONNECTED, UnixTime(5)};
    read(status, R"({"since":7.5,"more":[1,{}],"state":4})");
    read(status, "", true);
    read(status, R"({"state": 2})", true);
    EXPECT_EQ(status.state, ComState::CONNECTING);
    EXPECT_EQ(status.since.seconds, 7.5);
    EXPECT_EQ(status.since.valid, 1);
}

// An identification

TEST(AnIdentification, TakesOverEachTextThatItCanRead) {
    auto id = PUMP;
    auto expected = PUMP;
    read(id, "", true);
    read(id, R"({"name": "valve"})", true);
    for (auto const& payload : MALFORMED) {
        EXPECT_NO_THROW(read(id, payload));
    }
    EXPECT_EQ(texts(id), texts(expected)) << "unchanged by an empty or malformed payload";
    read(id, R"({"name": "valve"})");
    expected.name = "valve";
    EXPECT_EQ(texts(id), texts(expected));
    read(id, R"({"uuid": 1, "manufacturer": "m", "model": null, "serial": "\ud800",
                 "physicalName": [], "interface": {}, "version": "2", "contact": ""})");
    expected.manufacturer = "m";
    expected.version = "2";
    expected.contact = "";
    EXPECT_EQ(texts(id), texts(expected));
}

// A service status

TEST(AServiceStatus, TakesOverItsMembersUpToTheOneThatCannotBeRead) {
    ServiceStatus status{1, 2};
    read(status, "", true);
    read(status, R"({"operating": 9, "health": 9})", true);
    for (auto const& payload : MALFORMED) {
        EXPECT_THROW(read(status, payload), std::exception);
    }
    EXPECT_THROW(read(status, R"({"health": 9})"), std::out_of_range);
    EXPECT_THROW(read(status, R"({"operating": "9", "health": 9})"), std::invalid_argument);
    EXPECT_THROW(read(status, R"({"operating": 256, "health": 9})"), std::out_of_range);
    EXPECT_THROW(read(status, R"({"operating": -1, "health": 9})"), std::out_of_range);
    EXPECT_EQ(status.operating, 1);
    for (char const* const health :
         {"", ", \"health\": \"2\"", ", \"health\": 256", ", \"health\": 2.0"}) {
        status.operating = 1;
        auto const payload = std::string(R"({"operating": 9)") + health + "}";
        EXPECT_THROW(read(status, payload), std::logic_error) << payload;
        EXPECT_EQ(status.operating, 9) << payload;
        EXPECT_EQ(status.health, 2) << payload;
    }
}

} // namespace
