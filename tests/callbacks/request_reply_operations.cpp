#include "operations.hpp"

using Code = mqtt::RequestReply::ErrorCode;
using Error = mqtt::MqttClient::Error;
using zym::common::Uuid;

namespace {

void makeRequester(Stage& stage) {
    stage.things.makeRequester("echo");
}

/// A client of a service that nobody offers. Its own call it does get: but then its next reply
/// cannot come in before that call has returned.
void makeUnheardRequester(Stage& stage) {
    stage.things.makeRequester(stage.own ? "echo" : "nobody");
}

void expectCancelled(Stage& stage) {
    EXPECT_TRUE(stage.ear.waitFor("reply 7"));
    EXPECT_EQ(stage.ear.count("reply 1"), 0U);
}

void expectTerminated(Stage& stage) {
    expectCancelled(stage);
    EXPECT_EQ(stage.things.request(), Code::CANCELLED);
}

Operations ending() {
    return {{"RequestReplyClient/cancel", makeUnheardRequester,
             [](Stage& s) {
                 EXPECT_EQ(s.things.request(), Code::PENDING);
                 EXPECT_EQ(s.things.requester->cancel(), Code::SUCCESS);
             },
             expectCancelled},
            {"RequestReplyClient/terminate", makeUnheardRequester,
             [](Stage& s) {
                 EXPECT_EQ(s.things.request(), Code::PENDING);
                 s.things.requester->terminate();
             },
             expectTerminated},
            {"RequestReplyClient/release", makeUnheardRequester,
             [](Stage& s) {
                 EXPECT_EQ(s.things.request(), Code::PENDING);
                 s.things.requester->release();
             },
             expectTerminated},
            {"RequestReplyClient/destroy", makeUnheardRequester,
             [](Stage& s) {
                 EXPECT_EQ(s.things.request(), Code::PENDING);
                 s.things.requester.reset();
             },
             expectCancelled}};
}

Operations asking() {
    return {{"RequestReplyClient/request", makeRequester,
             [](Stage& s) { EXPECT_EQ(s.things.request(), Code::PENDING); },
             [](Stage& s) { EXPECT_TRUE(s.ear.waitFor("reply 1")); }},
            {"RequestReplyClient/requestWait", makeRequester,
             [](Stage& s) {
                 auto const data = std::make_shared<NumberData>();
                 EXPECT_EQ(s.things.requester->requestWait(s.things.id, Uuid::NIL,
                                                           std::make_shared<NumberData>(1), data,
                                                           PATIENCE),
                           Code::SUCCESS);
                 EXPECT_EQ(data->number, 7U);
             },
             nothing},
            // In its own call the request has ended: no time to wait.
            {"RequestReplyClient/waitEndOfRequest", makeRequester,
             [](Stage& s) {
                 if (!s.own) {
                     EXPECT_EQ(s.things.request(), Code::PENDING);
                 }
                 EXPECT_EQ(s.things.requester->waitEndOfRequest(PATIENCE), Code::SUCCESS);
             },
             nothing}};
}

void serve(Stage& stage) {
    if (stage.own) {
        return;
    }
    EXPECT_EQ(stage.things.serve(), Error::SUCCESS);
    stage.ask(stage.topic("service?\?"));
    EXPECT_EQ(stage.ear.count("request"), 1U);
}

void expectService(Stage& stage) {
    stage.ask(stage.topic("service?\?"));
    EXPECT_EQ(stage.ear.count("request"), 1U);
}

void expectNoService(Stage& stage) {
    stage.ear.clear();
    stage.ask(stage.topic("service?\?"));
    EXPECT_EQ(stage.ear.count("request"), 0U);
}

Operations serving() {
    return {{"RequestReplyServer/subscribe", nothing,
             [](Stage& s) {
                 if (s.own) {
                     EXPECT_EQ(s.things.server->unsubscribe(), Error::SUCCESS);
                 }
                 EXPECT_EQ(s.things.serve(), Error::SUCCESS);
             },
             expectService},
            {"RequestReplyServer/unsubscribe", serve,
             [](Stage& s) { EXPECT_EQ(s.things.server->unsubscribe(), Error::SUCCESS); },
             expectNoService},
            {"RequestReplyServer/unsubscribeWait", serve,
             [](Stage& s) {
                 EXPECT_EQ(s.things.server->unsubscribeWait(),
                           s.onWorker ? Error::TIMEOUT : Error::SUCCESS);
             },
             expectNoService},
            {"RequestReplyServer/release", serve, [](Stage& s) { s.things.server->release(); },
             expectNoService},
            {"RequestReplyServer/destroy", serve, [](Stage& s) { s.things.server.reset(); },
             expectNoService}};
}

} // namespace

Operations requestReplyOperations() {
    Operations all;
    for (auto const& some : {asking(), ending(), serving()}) {
        all.insert(all.end(), some.begin(), some.end());
    }
    return all;
}
