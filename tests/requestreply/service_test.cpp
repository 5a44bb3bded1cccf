// Services from functions: requests, replies and errors without classes of the application.

#include "requestreply/server_fixture.hpp"
#include "support/log_lines.hpp"

#include <mqtt/service.hpp>

#include <atomic>
#include <chrono>
#include <optional>
#include <stdexcept>

namespace {

struct Amount {
    unsigned litres = 0;
};
ZYM_MQTT_FIELDS(Amount, litres)

struct Level {
    unsigned left = 0;
    std::optional<std::string> note;
};
ZYM_MQTT_FIELDS(Level, left, note)

enum class DrawError : std::uint8_t { EMPTY = 16, NOT_ENOUGH = 17 };

} // namespace

namespace {

using mqtt::ClientId;
using mqtt::Nothing;
using mqtt::Result;
using mqtt::ServerId;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using Draw = mqtt::Service<Amount, Level>;
using Server = mqtt::Server<Amount, Level>;
using Caller = mqtt::Caller<Amount, Level>;

constexpr std::chrono::hours LONG{1};

TEST(AResult, IsAValueOrACode) {
    Result<Level> const value(Level{7, {}});
    EXPECT_TRUE(value);
    EXPECT_EQ(value->left, 7U);
    EXPECT_EQ((*value).left, 7U);
    EXPECT_EQ(value, Code::SUCCESS);
    EXPECT_NE(value, DrawError::NOT_ENOUGH);
    for (Result<Level> const& error : {Result<Level>(DrawError::NOT_ENOUGH),
                                       Result<Level>(Code::APPLICATION), Result<Level>(Code{9})}) {
        EXPECT_FALSE(error);
        EXPECT_NE(error, Code::SUCCESS);
        EXPECT_THROW(error.value(), std::bad_optional_access);
        EXPECT_THROW(static_cast<void>(error->left), std::bad_optional_access);
    }
    EXPECT_EQ(Result<Level>(DrawError::NOT_ENOUGH), DrawError::NOT_ENOUGH);
    EXPECT_EQ(Result<Level>(DrawError::NOT_ENOUGH), Code{17});
}

TEST(AResult, IsNoErrorWithAMeaningForEveryService) {
    EXPECT_THROW(Result<Level>(Code::SUCCESS), std::invalid_argument);
    EXPECT_THROW(Result<Level>(DrawError{15}), std::invalid_argument);
    EXPECT_THROW(Result<Level>(DrawError{1}), std::invalid_argument);
}

TEST(ATimeout, IsFromZeroToAllOnes) {
    using std::chrono::seconds;
    EXPECT_EQ(mqtt::timeoutOf(seconds::min()).toInt32(), 0);
    EXPECT_EQ(mqtt::timeoutOf(seconds(-1)).toInt32(), 0);
    EXPECT_EQ(mqtt::timeoutOf(seconds(5)).toInt32(), 5);
    EXPECT_EQ(mqtt::timeoutOf(seconds::max()).toInt32(), -1);
}

/// A service on a broker; the recorder of the fixture sees its messages.
class AService : public ServerOnABroker {
protected:
    AService() : caller(callerOf(DRAW)) {}

    template <class Request, class Reply>
    std::unique_ptr<mqtt::Caller<Request, Reply>>
    callerOf(mqtt::Service<Request, Reply> const& service) {
        return std::make_unique<mqtt::Caller<Request, Reply>>(*callerMqtt, service, ClientId(id),
                                                              ServerId(Uuid(7)));
    }
    std::unique_ptr<::Server> serve(::Server::Function function) {
        auto made = std::make_unique<::Server>(*mqtt, DRAW, ServerId(Uuid(7)), std::move(function));
        EXPECT_EQ(made->result(), Error::SUCCESS);
        awaitAllMessages();
        return made;
    }
    /// A request for so many litres, from another client than the caller.
    void requestOf(int litres) {
        peer.publish("svc/" + Uuid(7).base64URL() + "/tank/draw?\?/" + CLIENT_ID,
                     R"({"$reqId": 1, "litres": )" + std::to_string(litres) + "}");
    }
    /// A reply to the next call in place of a server.
    void replyToCall(std::string const& members) {
        auto const request = awaitMessage("?\?/", 1);
        replyTo(request, 1, members);
    }

    Draw const DRAW{"svc", "draw", "tank"};
    std::unique_ptr<mqtt::MqttClient> callerMqtt = mqtt::test::testClient(broker);
    mqtt::test::Watched<std::vector<Result<Level>>> results;
    Caller::Function const record = [this](Result<Level> const& result) {
        results.change([&](auto& all) { all.push_back(result); });
    };
    bool waitForResult() {
        return results.waitFor([](auto const& all) { return !all.empty(); });
    }
    std::unique_ptr<Caller> caller;
};

TEST_F(AService, ReturnsTheReplyOrTheErrorOfItsFunction) {
    auto const server = serve([](Amount const& wanted) -> Result<Level> {
        if (wanted.litres > 100) {
            return DrawError::NOT_ENOUGH;
        }
        return Level{100 - wanted.litres, "ok"};
    });
    auto const left = caller->callWait({60}, LONG);
    ASSERT_EQ(left, Code::SUCCESS);
    EXPECT_EQ(left->left, 40U);
    EXPECT_EQ(left->note, "ok");
    EXPECT_EQ(caller->callWait({200}, LONG), DrawError::NOT_ENOUGH);
    ASSERT_EQ(caller->call({1}, LONG, record), Code::PENDING);
    ASSERT_TRUE(waitForResult());
    EXPECT_EQ(results.copy()[0]->left, 99U);
    auto const prefix = "svc/" + Uuid(7).base64URL() + "/tank/draw";
    auto const request = awaitMessage("?\?/", 1);
    EXPECT_EQ(request.topic, prefix + "?\?/" + id.base64URL());
    EXPECT_EQ(request.payload, "{\n  \"$reqId\": " + std::to_string(idIn(request.payload))
                                   + ",\n  \"litres\": 60\n}");
    auto const reply = awaitMessage("?=/", 1);
    EXPECT_EQ(reply.topic, prefix + "?=/" + id.base64URL());
    EXPECT_EQ(reply.payload, "{\n  \"$reqId\": " + std::to_string(idIn(request.payload))
                                 + ",\n  \"$err\": 1,\n  \"left\": 40,\n  \"note\": \"ok\"\n}");
}

TEST_F(AService, MayHaveNothingToSayAndNoIdentifier) {
    mqtt::Service<Nothing, Nothing> const reset{"svc", "reset"};
    std::atomic<int> calls{0};
    mqtt::Server const server(*mqtt, reset, ServerId(), [&](Nothing) -> Result<Nothing> {
        ++calls;
        return Nothing();
    });
    awaitAllMessages();
    mqtt::Caller resetter(*callerMqtt, reset, ClientId(id), ServerId());
    EXPECT_TRUE(resetter.callWait({}, LONG));
    EXPECT_EQ(calls, 1);
    EXPECT_THAT(messagesWith(awaitAllMessages(), "svc/reset?\?/" + id.base64URL()),
                testing::SizeIs(1));
}

TEST_F(AService, WhoseFunctionThrowsSendsNoReplyAndLogsIt) {
    support::LogLines const log(mqtt::LogLevel::ERROR);
    auto const server = serve([](Amount const& wanted) -> Result<Level> {
        switch (wanted.litres) {
        case 0:
            throw std::runtime_error("a reason");
        case 1:
            throw 7;
        case 2:
            return DrawError{1};
        default:
            return Level{wanted.litres, {}};
        }
    });
    for (int const which : {0, 1, 2, 3}) {
        requestOf(which);
    }
    EXPECT_THAT(replies(), testing::SizeIs(1)) << "to the last one";
    EXPECT_THAT(log.copy(),
                ElementsAre(EndsWith("tank/draw?\?/AAAAAAAAAAAAAAAAAAAAAQ has thrown: a reason"),
                            EndsWith(" than std::exception"),
                            EndsWith(" has thrown: The errors of a service begin at 16")));
}

TEST_F(AService, TellsItsFunctionWhoAsks) {
    mqtt::Server const server(*mqtt, DRAW, ServerId(Uuid(7)),
                              [](Amount const&, ClientId const& client) -> Result<Level> {
                                  return Level{0, client.uuid.base64URL()};
                              });
    awaitAllMessages();
    auto const answer = caller->callWait({1}, LONG);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->note.value_or(""), id.base64URL());
}

TEST_F(AService, WhoseReplyCannotBeReadHasNoValue) {
    ASSERT_EQ(caller->call({1}, LONG, record), Code::PENDING);
    replyToCall(R"("left": "much")");
    ASSERT_TRUE(waitForResult());
    EXPECT_EQ(results.copy()[0], mqtt::UNREADABLE_REPLY);
}

TEST_F(AService, RefusesASecondCallAndKeepsTheFirst) {
    ASSERT_EQ(caller->call({1}, LONG, record), Code::PENDING);
    auto const captured = std::make_shared<int>(7);
    EXPECT_EQ(caller->call({2}, LONG, [captured](auto const&) {}), Code::BUSY);
    EXPECT_EQ(captured.use_count(), 1) << "the function is destroyed";
    EXPECT_EQ(caller->callWait({3}, LONG), Code::BUSY);
    replyToCall(R"("left": 5)");
    ASSERT_TRUE(waitForResult());
    EXPECT_EQ(results.copy()[0]->left, 5U);
}

// The end of a caller and of a server

TEST_F(AService, WhoseCallerIsDestroyedEndsTheCallAsCancelled) {
    std::optional<Result<Level>> result;
    BlockingThread waiting([&, &one = *caller] { result = one.callWait({1}, LONG); });
    ASSERT_TRUE(waiting.isBlocked());
    caller.reset();
    waiting.join();
    EXPECT_EQ(result, Code::CANCELLED);
}

TEST_F(AService, MayEndTheCallerInTheFunctionOfItsCall) {
    auto const server = serve([](Amount const&) -> Result<Level> { return Level{3, {}}; });
    auto const captured = std::make_shared<int>(7);
    ASSERT_EQ(caller->call({1}, LONG,
                           [&, captured](Result<Level> const& result) {
                               caller.reset();
                               EXPECT_EQ(*captured, 7);
                               record(result);
                               throw std::runtime_error("dropped");
                           }),
              Code::PENDING);
    ASSERT_TRUE(waitForResult());
    ::receiveAll(*callerMqtt);
    EXPECT_EQ(captured.use_count(), 1) << "the function is destroyed";
    EXPECT_EQ(results.copy()[0]->left, 3U);
}

TEST_F(AService, MayEndInItsOwnFunctionAndSendsNoReply) {
    std::unique_ptr<::Server> server;
    auto const captured = std::make_shared<unsigned>(7);
    server = serve([&, captured](Amount const& wanted) -> Result<Level> {
        server.reset();
        return Level{*captured + wanted.litres, {}};
    });
    requestOf(1);
    EXPECT_THAT(replies(), IsEmpty());
    EXPECT_EQ(server, nullptr);
    EXPECT_EQ(captured.use_count(), 1);
}

} // namespace
