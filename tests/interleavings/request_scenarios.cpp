// Requests, their replies and their ends.

#include "interleavings/stage.hpp"
#include "requestreply/sample_data.hpp"

#include <mqtt/request_reply.hpp>

#include <memory>
#include <thread>

using namespace interleavings;
using mqtt::RequestReplyClient;
using mqtt::RequestReplyServer;
using Code = mqtt::RequestReply::ErrorCode;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

/// Keeps how requests ended.
struct ReplyRecorder final : RequestReplyClient::Listener {
    explicit ReplyRecorder(std::function<void()> hook = {}) : ear(std::move(hook)) {
        ends.reserve(10); // it has memory when the library has none
    }
    void onReply(unsigned, std::string const&, zym::common::Uuid const&, zym::common::Uuid const&,
                 mqtt::RequestReplyData const&, Code error) override {
        ends.push_back(error);
        ear.hear();
    }
    std::vector<Code> ends;
    Ear ear;
};

struct OneRequester : ConnectedClient {
    Code request(RequestReplyClient::Listener* listener, unsigned number,
                 std::shared_ptr<NumberData> reply, conv::SecondsDuration const& timeout = 5) {
        return requester->request(listener, ME, SERVER, std::make_shared<NumberData>(number),
                                  std::move(reply), nullptr, timeout);
    }
    Code requestWait(unsigned number, std::shared_ptr<NumberData> reply) {
        return requester->requestWait(ME, SERVER, std::make_shared<NumberData>(number),
                                      std::move(reply), 5);
    }
    /// That the next request gets the answer to itself, and leaves nothing behind.
    void expectUsable() {
        expectAnAnswer();
        Scene::pass(LONG);
        expectNothingLeft();
    }
    void expectAnAnswer() {
        auto const reply = std::make_shared<NumberData>();
        server.speak();
        Scene::expect(requestWait(99, reply) == Code::SUCCESS && reply->number == 99,
                      "the next request does not get its answer");
    }

    EchoServer server{broker};
    void renew() { requester = std::make_unique<RequestReplyClient>(client, "svc", "", "echo"); }

    std::unique_ptr<RequestReplyClient> requester =
        std::make_unique<RequestReplyClient>(client, "svc", "", "echo");
};

/// Answers with the number of the request.
struct Echo final : RequestReplyServer::Listener {
    std::shared_ptr<mqtt::RequestReplyData> onRequest(std::string const&, zym::common::Uuid const&,
                                                      zym::common::Uuid const&,
                                                      mqtt::RequestReplyData const& data,
                                                      Code&) override {
        ear.hear();
        return std::make_shared<NumberData>(dynamic_cast<NumberData const&>(data).number);
    }
    Ear ear;
};

} // namespace

SCENARIO(RequestAfterCancel, PAUSES) {
    OneRequester one;
    ReplyRecorder first;
    ReplyRecorder second;
    auto const reply = std::make_shared<NumberData>();
    {
        Scene::Exploration const here;
        one.request(&first, 1, std::make_shared<NumberData>());
        scene.pause();
        if (!scene.mistaken()) {
            one.requester->cancel();
        }
        scene.pause();
        one.request(&second, 2, reply);
    }
    Scene::pass(LONG);
    Scene::expect(first.ends.size() == 1 && second.ends.size() == 1,
                  "the end of a request is not told once");
    Scene::expect(second.ends[0] == Code::SUCCESS && reply->number == 2,
                  "a request has the answer to another one");
    one.expectUsable();
}

SCENARIO(ReplyMeetsTheDeadline, PAUSES | DEADLINES) {
    OneRequester one;
    ReplyRecorder first;
    ReplyRecorder second;
    auto const reply = std::make_shared<NumberData>();
    one.server.beSilent();
    {
        Scene::Exploration const here;
        one.request(&first, 1, std::make_shared<NumberData>(), 1);
        scene.pause();
        Scene::pass(seconds(1));
        one.server.speak();
        if (!scene.mistaken()) {
            one.requester->waitEndOfRequest(5);
        }
        one.request(&second, 2, reply, 1);
    }
    Scene::pass(LONG);
    Scene::expect(first.ends.size() == 1 && second.ends.size() == 1,
                  "the end of a request is not told once");
    Scene::expect(second.ends[0] != Code::SUCCESS || reply->number == 2,
                  "a request has the answer to another one");
    one.expectUsable();
}

SCENARIO(WaitersMeetCancel, PAUSES | DEADLINES) {
    OneRequester one;
    ReplyRecorder recorder;
    Code waited{};
    {
        Scene::Exploration const here;
        one.request(&recorder, 1, std::make_shared<NumberData>(), 1);
        std::thread other([&] { waited = one.requester->waitEndOfRequest(1); });
        scene.pause();
        one.requester->cancel();
        auto const reply = std::make_shared<NumberData>();
        auto const end =
            scene.mistaken() ? one.request(&recorder, 2, reply) : one.requestWait(2, reply);
        Scene::expect(end == Code::TIMEOUT || (end == Code::SUCCESS && reply->number == 2),
                      "a request that is waited for has not ended with its answer");
        other.join();
    }
    Scene::pass(LONG);
    Scene::expect(waited == Code::SUCCESS || waited == Code::CANCELLED || waited == Code::TIMEOUT,
                  "a waiter hears of no end");
    Scene::expect(recorder.ends.size() == 1, "the end of a request is not told once");
    one.expectUsable();
}

SCENARIO(TheEndOfARequesterMeetsItsCallbacks, DEADLINES) {
    OneRequester one;
    ReplyRecorder recorder;
    one.server.beSilent();
    one.request(&recorder, 1, std::make_shared<NumberData>(), 1);
    std::thread waiter([&] { one.requester->waitEndOfRequest(1); });
    Scene::pass(milliseconds(1));
    {
        Scene::Exploration const here;
        one.server.speak();
        if (scene.mistaken()) {
            recorder.ear.close();
        }
        one.requester.reset();
        recorder.ear.close();
    }
    waiter.join();
    Scene::pass(LONG);
    Scene::expect(recorder.ends.size() == 1, "the end of a request is not told once");
    one.expectNothingLeft();
}

SCENARIO(ARequesterEndsInItsListener, DEADLINES) {
    OneRequester one;
    ReplyRecorder recorder([&] { one.requester.reset(); });
    {
        Scene::Exploration const here;
        one.request(&recorder, 1, std::make_shared<NumberData>(), 1);
        if (scene.mistaken()) {
            one.requester->cancel();
        }
        Scene::pass(seconds(2));
    }
    Scene::pass(LONG);
    Scene::expect(recorder.ends.size() == 1 && recorder.ends[0] != Code::CANCELLED,
                  "the end of a request is not told once");
    one.expectNothingLeft();
}

SCENARIO(RequestsMeetTheLossOfTheConnection, PAUSES | DEADLINES) {
    OneRequester one;
    ReplyRecorder recorder;
    auto const library = support::StandIn::last();
    {
        Scene::Exploration const here;
        library->loseConnection();
        one.request(&recorder, 1, std::make_shared<NumberData>(), 1);
        scene.pause();
        Scene::pass(seconds(1));
        if (scene.mistaken()) {
            one.requester->terminate();
        }
    }
    Scene::pass(LONG);
    Scene::expect(recorder.ends.size() == 1, "the end of a request is not told once");
    one.expectUsable();
}

SCENARIO(TwoClientsAskOneServer, PAUSES) {
    SmallBroker broker;
    mqtt::MqttClient mine(ME, false, "", "host", 1883, true);
    mqtt::MqttClient others(OTHER, false, "", "host", 1883, true);
    Echo echo;
    auto server = std::make_unique<RequestReplyServer>(others, "svc", "", "echo");
    server->subscribe(&echo, SERVER, std::make_shared<NumberData>());
    RequestReplyClient requester(mine, "svc", "", "echo");
    RequestReplyClient neighbour(others, "svc", "", "echo");
    ReplyRecorder recorders[2];
    auto const replies = {std::make_shared<NumberData>(), std::make_shared<NumberData>()};
    {
        Scene::Exploration const here;
        requester.request(&recorders[0], ME, SERVER, std::make_shared<NumberData>(1),
                          *replies.begin(), nullptr, 5);
        neighbour.request(&recorders[1], OTHER, SERVER, std::make_shared<NumberData>(2),
                          *(replies.begin() + 1), nullptr, 5);
        scene.pause();
        if (scene.mistaken()) {
            echo.ear.close();
        }
        server.reset();
        echo.ear.close();
    }
    Scene::pass(LONG);
    for (auto const& recorder : recorders) {
        Scene::expect(recorder.ends.size() == 1, "the end of a request is not told once");
    }
    unsigned number = 0;
    for (auto const& reply : replies) {
        Scene::expect(reply->number == 0 || reply->number == ++number || reply->number == 2,
                      "a request has the answer to another one");
    }
    Scene::expect(broker.subscriptions() == 0, "a subscription is left over");
}

SCENARIO(RequestsWithoutAThread, NO_THREAD) {
    OneRequester one;
    ReplyRecorder recorder;
    bool accepted = false;
    {
        Scene::Exploration const here;
        accepted = attempt([&] { one.request(&recorder, 1, std::make_shared<NumberData>()); });
        Scene::pass(milliseconds(1));
    }
    Scene::pass(LONG);
    Scene::expect(recorder.ends.size() == (accepted || scene.mistaken() ? 1 : 0),
                  "the end of a request is not told once");
    one.expectUsable();
}

SCENARIO(RequestsWithoutMemory, NO_MEMORY) {
    OneRequester one;
    ReplyRecorder recorder;
    bool accepted = false;
    if (Scene::Exploration const here; Scene::maybe()) {
        one.server.beSilent();
    }
    {
        Scene::Exploration const here;
        Scene::Shortage const shortage;
        accepted = attempt([&] { one.request(&recorder, 1, std::make_shared<NumberData>(), 1); });
        Scene::pass(seconds(2));
    }
    Scene::pass(LONG);
    Scene::expect(recorder.ends.size() == (accepted || scene.mistaken() ? 1 : 0),
                  "the end of a request is not told once");
    one.expectAnAnswer();
    // Without memory a request may leave its subscription to the end of its client.
    one.requester.reset();
    Scene::pass(LONG);
    one.expectNothingLeft();
}

SCENARIO(AReplyListenerThrows, DEADLINES) {
    OneRequester one;
    ReplyRecorder recorder(&throwSometimes);
    {
        Scene::Exploration const here;
        one.request(&recorder, 1, std::make_shared<NumberData>(), 1);
        std::thread other([&] { one.requester->waitEndOfRequest(1); });
        if (!Scene::maybe()) {
            one.requester->cancel();
        }
        other.join();
        if (scene.mistaken()) {
            throwSometimes();
        }
        if (Scene::maybe()) {
            one.renew();
        }
    }
    Scene::pass(LONG);
    Scene::expect(recorder.ends.size() == 1, "the end of a request is not told once");
    one.expectUsable();
}

SCENARIO(AServersListenerThrows, THREADS_ONLY) {
    SmallBroker broker;
    mqtt::MqttClient client(ME, false, "", "host", 1883, true);
    Echo echo;
    echo.ear = Ear(&throwSometimes);
    RequestReplyServer server(client, "svc", "", "echo");
    server.subscribe(&echo, SERVER, std::make_shared<NumberData>());
    RequestReplyClient requester(client, "svc", "", "echo");
    ReplyRecorder recorder;
    auto const reply = std::make_shared<NumberData>();
    {
        Scene::Exploration const here;
        requester.request(&recorder, ME, SERVER, std::make_shared<NumberData>(1), reply, nullptr,
                          1);
        Scene::pass(seconds(scene.mistaken() ? 0 : 2));
        requester.request(&recorder, ME, SERVER, std::make_shared<NumberData>(2), reply, nullptr,
                          1);
        Scene::pass(seconds(2));
    }
    Scene::pass(LONG);
    Scene::expect(recorder.ends.size() == 2, "the end of a request is not told once");
    Scene::expect(requester.requestWait(ME, SERVER, std::make_shared<NumberData>(3), reply, 1)
                          == Code::SUCCESS
                      && reply->number == 3,
                  "the server does not answer any more");
}
