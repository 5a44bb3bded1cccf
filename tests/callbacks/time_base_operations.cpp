#include "operations.hpp"

namespace {

void makeProxy(Stage& stage) {
    stage.things.makeTimeProxy();
}

/// In its own call it is.
void synchronize(Stage& stage) {
    auto& proxy = stage.things.makeTimeProxy();
    EXPECT_TRUE(stage.own || proxy.synchronize(world().device, PATIENCE));
}

void expectQuestion(int before) {
    EXPECT_TRUE(support::eventually([&] { return world().timeBase.asked > before; }));
}

Operations running() {
    return {
        {"SynchronizedTimeBaseMqttProxy/startSync", makeProxy,
         [](Stage& s) {
             EXPECT_TRUE(s.things.timeProxy->stop());
             EXPECT_TRUE(s.things.timeProxy->startSync(world().device));
         },
         [](Stage& s) { EXPECT_TRUE(s.ear.waitFor("synchronized")); }},
        {"SynchronizedTimeBaseMqttProxy/synchronize", makeProxy,
         [](Stage& s) { EXPECT_TRUE(s.things.timeProxy->synchronize(world().device, PATIENCE)); },
         [](Stage& s) { EXPECT_TRUE(s.things.timeProxy->isSynchronized()); }},
        {"SynchronizedTimeBaseMqttProxy/stop", synchronize,
         [](Stage& s) { EXPECT_TRUE(s.things.timeProxy->stop()); },
         [](Stage& s) { EXPECT_FALSE(s.things.timeProxy->isSynchronized()); }},
        {"SynchronizedTimeBaseMqttProxy/forceSync", synchronize,
         [](Stage& s) {
             int const before = world().timeBase.asked;
             s.things.timeProxy->forceSync();
             s.things.asked = before;
         },
         [](Stage& s) { expectQuestion(s.things.asked); }},
        {"SynchronizedTimeBaseMqttProxy/timeBase", synchronize,
         [](Stage& s) {
             EXPECT_TRUE(s.things.timeProxy->isSynchronized());
             EXPECT_LE(s.things.timeProxy->timeBase(), world().timeBase.timeBase() + 1);
         },
         nothing}};
}

Operations ending() {
    return {{"SynchronizedTimeBaseMqttProxy/terminate", synchronize,
             [](Stage& s) { s.things.timeProxy->terminate(); },
             [](Stage& s) {
                 s.things.timeProxy->stop();
                 EXPECT_FALSE(s.things.timeProxy->startSync(world().device));
             }},
            {"SynchronizedTimeBaseMqttProxy/destroy",
             [](Stage& s) {
                 auto& proxy = s.things.makeTimeProxy();
                 EXPECT_TRUE(s.own || proxy.startSync(s.things.id));
             },
             [](Stage& s) { s.things.timeProxy.reset(); }, [](Stage& s) { s.flush(); }}};
}

void offerTime(Stage& stage) {
    auto const& timeBase = stage.things.makeTimeBase();
    stage.ask(stage.topic(stage.things.id.base64URL() + "/timeSync?\?"));
    EXPECT_EQ(timeBase.asked, 1);
}

/// Nobody has answered on the server's topic any more.
void expectNoTime(Stage& stage) {
    auto const service = stage.topic(stage.things.id.base64URL() + "/timeSync?");
    auto const countReplies = [&] {
        stage.peer.publish(stage.topic("settled"), "");
        auto const all = stage.peer.messages();
        return std::count_if(all.begin(), all.end(), [&](auto const& message) {
            return message.topic.rfind(service + "=", 0) == 0;
        });
    };
    stage.ask(service + "?");
    EXPECT_EQ(countReplies(), 1);
}

Operations offering() {
    return {{"SynchronizedTimeBaseMqttAdaptor/terminate", offerTime,
             [](Stage& s) { s.things.timeBase->terminate(); },
             [](Stage& s) {
                 expectNoTime(s);
                 EXPECT_EQ(s.things.timeBase->asked, 1);
             }},
            {"SynchronizedTimeBaseMqttAdaptor/destroy", offerTime,
             [](Stage& s) { s.things.timeBase.reset(); }, expectNoTime}};
}

} // namespace

Operations timeBaseOperations() {
    Operations all;
    for (auto const& some : {running(), ending(), offering()}) {
        all.insert(all.end(), some.begin(), some.end());
    }
    return all;
}
