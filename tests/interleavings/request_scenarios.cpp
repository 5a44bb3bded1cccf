// Requests, replies and servers.

#include "interleavings/fixtures.hpp"
#include "requestreply/sample_data.hpp"

#include <mqtt/request_reply.hpp>

#include <memory>
#include <thread>

namespace interleavings {

using mqtt::RequestReplyClient;
using mqtt::RequestReplyServer;
using Code = mqtt::RequestReply::ErrorCode;
using Reply = std::shared_ptr<NumberData>;
using std::chrono::seconds;

namespace {

struct ReplyListener final : RequestReplyClient::Listener, CallbackCheck {
    ReplyListener() { ends.reserve(10); } // needs no memory later
    void onReply(unsigned, std::string const&, zym::common::Uuid const&, zym::common::Uuid const&,
                 mqtt::RequestReplyData const&, Code error) override {
        ends.push_back(error);
        onCallback();
    }
    void expectEnds(std::size_t count) const {
        expect(ends.size() == count, "a request does not report its end once");
    }
    std::vector<Code> ends;
};

/// Answers with the number of the request.
struct EchoListener final : RequestReplyServer::Listener, CallbackCheck {
    std::shared_ptr<mqtt::RequestReplyData> onRequest(std::string const&, zym::common::Uuid const&,
                                                      zym::common::Uuid const&,
                                                      mqtt::RequestReplyData const& data,
                                                      Code&) override {
        onCallback();
        return std::make_shared<NumberData>(dynamic_cast<NumberData const&>(data).number);
    }
};

Reply numberData(unsigned number = 0) {
    return std::make_shared<NumberData>(number);
}

struct RequesterFixture : ClientOfEchoServer {
    Code request(ReplyListener& replyListener, unsigned number, unsigned timeoutSeconds,
                 Reply const& reply = numberData()) const {
        return requester->request(&replyListener, CLIENT, SERVER, numberData(number), reply,
                                  nullptr, timeoutSeconds);
    }
    Code requestWait(unsigned number, Reply const& reply) const {
        return requester->requestWait(CLIENT, SERVER, numberData(number), reply, 5);
    }
    void expectNextRequestSucceeds() {
        auto const reply = numberData();
        server.releaseReplies();
        expect(requestWait(99, reply) == Code::SUCCESS && reply->number == 99,
               "the next request does not get its answer");
    }
    void expectOneEndAndUsable() {
        listener.expectEnds(1);
        expectNextRequestSucceeds();
        pass(SETTLING_TIME);
        expectNoSubscriptions();
    }
    ReplyListener listener;
    ReplyListener secondListener;
    std::unique_ptr<RequestReplyClient> requester =
        std::make_unique<RequestReplyClient>(client, "svc", "", "echo");
};

SCENARIO(ReplyMeetsTheDeadline, RequesterFixture, DEADLINES) {
    auto const reply = numberData();
    auto const library = support::StandIn::last();
    server.holdReplies();
    explore([&] {
        if (maybe()) {
            library->loseConnection();
        }
        request(listener, 1, 1);
        maybePause();
        pass(seconds(1));
        server.releaseReplies();
        unlessMistaken([&] { requester->waitEndOfRequest(5); });
        request(secondListener, 2, 1, reply);
    });
    secondListener.expectEnds(1);
    expect(secondListener.ends[0] != Code::SUCCESS || reply->number == 2,
           "a request has the answer to another one");
    expectOneEndAndUsable();
}

SCENARIO(WaitersMeetCancel, RequesterFixture, DEADLINES) {
    listener.setAction(&maybeThrow);
    Code waited{};
    explore([&] {
        request(listener, 1, 1);
        std::thread other([&] { waited = requester->waitEndOfRequest(1); });
        maybePause();
        requester->cancel();
        maybePause();
        auto const reply = numberData();
        auto const end = makesMistake() ? request(listener, 2, 5, reply) : requestWait(2, reply);
        expect(end == Code::TIMEOUT || (end == Code::SUCCESS && reply->number == 2),
               "an awaited request has not ended with its answer");
        other.join();
    });
    expect(waited == Code::SUCCESS || waited == Code::CANCELLED || waited == Code::TIMEOUT,
           "a waiting thread does not learn the end");
    expectOneEndAndUsable();
}

SCENARIO(TheEndOfARequesterMeetsItsCallbacks, RequesterFixture, DEADLINES) {
    endDuringReplies(requester, listener, [&] {
        request(listener, 1, 1);
        requester->waitEndOfRequest(1);
    });
    listener.expectEnds(1);
}

SCENARIO(TwoClientsAskOneServer, TwoConnectedClients, THREADS_ONLY) {
    EchoListener echo;
    echo.setAction(&maybeThrow);
    auto server = std::make_unique<RequestReplyServer>(otherClient, "svc", "", "echo");
    server->subscribe(&echo, SERVER, numberData());
    RequestReplyClient requesters[]{{*client, "svc", "", "echo"}, {otherClient, "svc", "", "echo"}};
    ReplyListener listeners[2];
    Reply const replies[]{numberData(), numberData()};
    explore([&] {
        for (unsigned i = 0; i < 2; ++i) {
            requesters[i].request(&listeners[i], i == 0 ? CLIENT : OTHER_CLIENT, SERVER,
                                  numberData(i + 1), replies[i], nullptr, 5);
        }
        maybePause();
        ifMistaken([&] { echo.close(); });
        server.reset();
        echo.close();
    });
    for (unsigned i = 0; i < 2; ++i) {
        listeners[i].expectEnds(1);
        expect(replies[i]->number == 0 || replies[i]->number == i + 1,
               "a request has the answer to another one");
    }
    expect(broker.subscriptions() == 0, "a subscription is left");
}

SCENARIO(RequestsWithoutResources, RequesterFixture, RESOURCES) {
    bool accepted = false;
    explore([&] {
        if (maybe()) {
            server.holdReplies();
        }
        MemoryMayFail const here;
        accepted = attempt([&] { request(listener, 1, 1); });
        pass(seconds(2));
    });
    listener.expectEnds(accepted || makesMistake() ? 1 : 0);
    expectNextRequestSucceeds();
    // For lack of memory a request may keep its subscription until its client ends.
    if (MemoryMayFail::hasFailed) {
        requester.reset();
    }
    pass(SETTLING_TIME);
    expectNoSubscriptions();
}

} // namespace

} // namespace interleavings
