// Requests, their replies and their ends.

#include "interleavings/stage.hpp"
#include "requestreply/sample_data.hpp"

#include <mqtt/request_reply.hpp>

#include <thread>

using namespace interleavings;
using mqtt::RequestReplyClient;
using Code = mqtt::RequestReply::ErrorCode;
using std::chrono::seconds;

namespace {

/// Keeps how requests ended, with the number in each reply.
struct ReplyRecorder final : RequestReplyClient::Listener {
    void onReply(unsigned, std::string const&, zym::common::Uuid const&, zym::common::Uuid const&,
                 mqtt::RequestReplyData const&, Code error) override {
        ends.push_back(error);
    }
    std::vector<Code> ends;
};

struct OneRequester : ConnectedClient {
    Code request(RequestReplyClient::Listener* listener, unsigned number,
                 std::shared_ptr<NumberData> reply, conv::SecondsDuration const& timeout) {
        return requester.request(listener, ME, SERVER, std::make_shared<NumberData>(number),
                                 std::move(reply), nullptr, timeout);
    }

    EchoServer server{broker};
    RequestReplyClient requester{client, "svc", "", "echo"};
};

} // namespace

SCENARIO(RequestAfterCancel, PAUSES) {
    OneRequester one;
    ReplyRecorder first;
    ReplyRecorder second;
    auto const reply = std::make_shared<NumberData>();
    {
        Scene::Exploration const here;
        one.request(&first, 1, std::make_shared<NumberData>(), 5);
        scene.pause();
        one.requester.cancel();
        scene.pause();
        one.request(&second, 2, reply, 5);
    }
    Scene::pass(seconds(20));
    Scene::expect(first.ends.size() == 1 && second.ends.size() == 1,
                  "the end of a request is not told once");
    Scene::expect(second.ends[0] == Code::SUCCESS && reply->number == 2,
                  "a request has the answer to another one");
    Scene::expect(one.broker.subscriptions() == 0, "a subscription is left over");
}
