#include "callback_test.hpp"

using Binding = zym::common::Binder::Error;
using Code = mqtt::RequestReply::ErrorCode;
using Error = mqtt::MqttClient::Error;
using Test = CallbackTest;
using std::chrono::milliseconds;

namespace {

void receiveMessage(Test& t, Objects& objects) {
    EXPECT_EQ(t.client->subscribe(t.topic("go"), &objects.events, 0), Error::SUCCESS);
    t.publish(t.topic("go"), "now");
}

void receiveValue(Test& t, Objects& objects) {
    EXPECT_EQ(objects.endpoint->subscribe(&objects.events, 1), Error::SUCCESS);
    t.publish(objects.root + "/value", R"({"@id": "go"})");
}

void connectAgain(Test& t, Objects& objects) {
    EXPECT_EQ(t.client->disconnect(TIMEOUT_S), Error::SUCCESS);
    t.client->registerListener(&objects.events);
    // Does not wait for a state that an operation inside the callback may end at once.
    auto const result = t.client->connect("", -1, 0);
    EXPECT_TRUE(result == Error::SUCCESS || result == Error::TIMEOUT) << result;
}

void receiveRequest(Test& t, Objects& objects) {
    EXPECT_EQ(objects.serve(), Error::SUCCESS);
    t.publish(objects.root + "/service?\?/" + objects.id.base64URL(),
              R"({"$reqId": 1, "number": 7})");
}

void request(Test& /*test*/, Objects& objects) {
    EXPECT_EQ(objects.request(), Code::PENDING);
}

void requestAndCancel(Test& /*test*/, Objects& objects) {
    objects.requester = objects.requesterOf("nobody");
    EXPECT_EQ(objects.request(), Code::PENDING);
    EXPECT_EQ(objects.requester->cancel(), Code::SUCCESS);
}

/// The timer ends the request.
void requestOnInvalidTopic(Test& /*test*/, Objects& objects) {
    objects.requester = objects.requesterOf("+");
    EXPECT_EQ(objects.requester->request(&objects.events, objects.id, zym::common::Uuid::NIL,
                                         nullptr, nullptr, nullptr, 0),
              Code::PENDING);
}

void synchronize(Test& /*test*/, Objects& objects) {
    objects.timeProxy->stop();
    EXPECT_TRUE(objects.timeProxy->startSync(device().id));
}

/// What comes before depends on the last time; it has no effect the first time.
void bindAgain(Test& /*test*/, Objects& objects) {
    objects.binder->unbindSync(TIMEOUT_S);
    EXPECT_EQ(objects.binder->bind(device().id, TIMEOUT_S), Binding::SUCCESS);
}

void bindSync(Test& /*test*/, Objects& objects) {
    objects.binder->unbindSync(TIMEOUT_S);
    EXPECT_EQ(objects.binder->bindSync(device().id, TIMEOUT_S), Binding::SUCCESS);
}

void unbind(Test& t, Objects& objects) {
    bindSync(t, objects);
    EXPECT_EQ(objects.binder->unbind(TIMEOUT_S), Binding::SUCCESS);
}

void unbindSync(Test& t, Objects& objects) {
    bindSync(t, objects);
    EXPECT_EQ(objects.binder->unbindSync(TIMEOUT_S), Binding::SUCCESS);
}

void bindOnInvalidTopic(Test& /*test*/, Objects& objects) {
    objects.binder = objects.binderOf("far/+");
    EXPECT_EQ(objects.binder->bind(device().id, 0), Binding::SUCCESS);
}

void unbindOnInvalidTopic(Test& /*test*/, Objects& objects) {
    objects.binder = objects.binderOf("far/+");
    EXPECT_EQ(objects.binder->bind(device().id, HOUR_S), Binding::SUCCESS);
    EXPECT_EQ(objects.binder->unbind(0), Binding::SUCCESS);
}

void clean(Test& t, Objects& objects) {
    auto const topic = objects.root + "/go";
    t.peer.publish(topic, "now", 2, true);
    objects.cleaner->clean(topic, milliseconds::zero());
}

void startTimer(Test& /*test*/, Objects& objects) {
    objects.restartTimer(milliseconds::zero(), true);
}

} // namespace

std::vector<Callback> const& callbacks() {
    static std::vector<Callback> const all{
        {"onMqttMessage", "worker", "message", receiveMessage},
        {"onComStateChanged", "worker", "state 2", connectAgain},
        {"onComStateChanged", "caller", "state 4", connectAgain},
        {"onMqttData", "worker", "value", receiveValue},
        {"onRequest", "worker", "request", receiveRequest},
        {"onReply", "worker", "reply 1", request},
        {"onReply", "caller", "reply 7", requestAndCancel},
        {"onReply", "timer", "reply 3", requestOnInvalidTopic},
        {"onTimeSynchronized", "worker", "synchronized", synchronize},
        {"onBound", "worker", "bound 0", bindAgain},
        {"onBound", "caller", "bound 0", bindSync},
        {"onBound", "timer", "bound 3", bindOnInvalidTopic},
        {"onUnbound", "worker", "unbound 0", unbind},
        {"onUnbound", "caller", "unbound 0", unbindSync},
        {"onUnbound", "timer", "unbound 0", unbindOnInvalidTopic},
        {"onTopicCleaned", "timer", "cleaned", clean},
        {"onAllTopicsCleaned", "timer", "all cleaned", clean},
        {"Timer", "timer", "timer", startTimer},
    };
    return all;
}

Callback const& callbackNamed(std::string_view name) {
    for (Callback const& callback : callbacks()) {
        if (callback.name == name) {
            return callback;
        }
    }
    throw std::invalid_argument("No callback " + std::string(name));
}
