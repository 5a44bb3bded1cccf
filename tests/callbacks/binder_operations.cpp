#include "operations.hpp"

using Error = zym::common::Binder::Error;

namespace {

void makeBinder(Stage& stage) {
    stage.things.makeBinder();
}

/// In its own call it is.
void bind(Stage& stage) {
    auto& binder = stage.things.makeBinder();
    if (!stage.own) {
        EXPECT_EQ(binder.bindSync(world().device, PATIENCE), Error::SUCCESS);
    }
}

void expectBound(Stage& stage) {
    EXPECT_TRUE(stage.ear.waitFor("bound 0"));
}

void expectUnbound(Stage& stage) {
    EXPECT_TRUE(stage.ear.waitFor("unbound 0"));
}

Operations binding() {
    return {{"BinderMqttProxy/bind", makeBinder,
             [](Stage& s) {
                 EXPECT_EQ(s.things.binder->bind(world().device, PATIENCE), Error::SUCCESS);
             },
             expectBound, false, "unbound 0"},
            {"BinderMqttProxy/bindSync", makeBinder,
             [](Stage& s) {
                 EXPECT_EQ(s.things.binder->bindSync(world().device, PATIENCE), Error::SUCCESS);
             },
             expectBound},
            {"BinderMqttProxy/unbind", bind,
             [](Stage& s) { EXPECT_EQ(s.things.binder->unbind(PATIENCE), Error::SUCCESS); },
             expectUnbound},
            {"BinderMqttProxy/cancelUnbinding", bind,
             [](Stage& s) {
                 EXPECT_EQ(s.things.binder->unbind(PATIENCE), Error::SUCCESS);
                 s.things.binder->cancelUnbinding();
             },
             expectUnbound},
            {"BinderMqttProxy/unbindSync", bind,
             [](Stage& s) { EXPECT_EQ(s.things.binder->unbindSync(PATIENCE), Error::SUCCESS); },
             expectUnbound},
            {"BinderMqttProxy/forceTimeBaseSync", bind,
             [](Stage& s) {
                 int const before = world().timeBase.asked;
                 s.things.binder->forceTimeBaseSync();
                 s.things.asked = before;
             },
             [](Stage& s) {
                 EXPECT_TRUE(
                     support::eventually([&] { return world().timeBase.asked > s.things.asked; }));
             }},
            {"BinderMqttProxy/timeBase", bind,
             [](Stage& s) {
                 EXPECT_TRUE(s.things.binder->isTimeBaseSynchronized());
                 EXPECT_LE(s.things.binder->timeBase(), world().timeBase.timeBase() + 1);
             },
             nothing}};
}

Operations ending() {
    return {{"BinderMqttProxy/terminate", bind, [](Stage& s) { s.things.binder->terminate(); },
             [](Stage& s) { EXPECT_EQ(s.things.binder->unbind(PATIENCE), Error::CANCELLED); }},
            {"BinderMqttProxy/destroy", bind, [](Stage& s) { s.things.binder.reset(); },
             [](Stage& s) { s.flush(); }}};
}

} // namespace

Operations binderOperations() {
    auto all = binding();
    auto const others = ending();
    all.insert(all.end(), others.begin(), others.end());
    return all;
}
