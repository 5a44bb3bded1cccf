// The time base, the binder and the cleaner.

#include "interleavings/stage.hpp"

#include <mqtt/binder_proxy.hpp>
#include <mqtt/time_base.hpp>
#include <mqtt/topic_cleaner.hpp>

#include <thread>

using namespace interleavings;
using std::chrono::seconds;
using BinderError = zym::common::Binder::Error;

namespace {

struct TimeListener final : zym::common::SynchronizedTimeBaseProxy::Listener {
    void onTimeSynchronized() override { ++count; }
    int count = 0;
};

struct OneTimeBase : ConnectedClient {
    EchoServer server{broker};
    TimeListener listener;
    mqtt::SynchronizedTimeBaseMqttProxy proxy{client, "svc", ME, &listener};
};

struct BindingRecorder final : zym::common::BinderProxy::Listener {
    void onBound(BinderError error) override { bound.push_back(error); }
    void onUnbound(BinderError error) override { unbound.push_back(error); }
    std::vector<BinderError> bound;
    std::vector<BinderError> unbound;
};

struct OneBinder : ConnectedClient {
    EchoServer server{broker};
    BindingRecorder listener;
    mqtt::BinderMqttProxy proxy{client, "svc", "", ME, "me", &listener};

    void expectUnbound() {
        Scene::expect(!proxy.isTimeBaseSynchronized(), "the time base of an ended binding runs on");
        Scene::expect(proxy.unbindSync(5) == BinderError::NOT_BOUND, "bound after the unbind");
        auto const& served = server.served();
        auto const last = std::find_if(served.rbegin(), served.rend(), [](auto const& name) {
            return name.find("bind") != std::string::npos;
        });
        Scene::expect(last == served.rend() || *last == "unbind",
                      "the server hears of a bind after the unbind");
    }
    void expectUsable() {
        Scene::expect(proxy.bindSync(SERVER, 5) == BinderError::SUCCESS,
                      "not to be bound any more");
        Scene::expect(proxy.unbindSync(5) == BinderError::SUCCESS, "not to be unbound any more");
    }
};

} // namespace

SCENARIO(TimeBaseStopAndStart, PAUSES) {
    OneTimeBase one;
    {
        Scene::Exploration const here;
        one.proxy.startSync(SERVER);
        scene.pause();
        one.proxy.stop();
        scene.pause();
        one.proxy.startSync(SERVER);
    }
    Scene::pass(seconds(20));
    Scene::expect(one.proxy.isSynchronized(), "the time base stands still");
    Scene::expect(one.listener.count == 1 || one.listener.count == 2,
                  "the listener is not told once");
}

SCENARIO(BindMeetsUnbind, THREADS_ONLY) {
    OneBinder one;
    BinderError unbound{};
    {
        Scene::Exploration const here;
        std::thread other([&] { unbound = one.proxy.unbindSync(5); });
        one.proxy.bind(SERVER, 5);
        other.join();
    }
    Scene::pass(seconds(20));
    if (unbound == BinderError::SUCCESS)
        one.expectUnbound();
    else
        one.proxy.unbindSync(5);
    one.expectUsable();
}

SCENARIO(BindSyncMeetsUnbindSync, THREADS_ONLY) {
    OneBinder one;
    BinderError unbound{};
    {
        Scene::Exploration const here;
        std::thread other([&] { unbound = one.proxy.unbindSync(5); });
        one.proxy.bindSync(SERVER, 5);
        other.join();
    }
    Scene::pass(seconds(20));
    if (unbound == BinderError::SUCCESS)
        one.expectUnbound();
    else
        one.proxy.unbindSync(5);
    one.expectUsable();
}
