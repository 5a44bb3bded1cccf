// The virtual tables of all public classes of the platform library.

#include "common/class_layouts.hpp"

#include <gtest/gtest.h>

namespace {

TEST(ThePlatformsSlots, KeepTheirOrder) {
    expectLayouts({
        {"zym/common/binder_proxy.hpp",
         "zym::common::BinderProxy",
         "using Error = zym::common::Binder::Error;\n"
         "using Seconds = conv::SecondsDuration;\n"
         "using Uuid = zym::common::Uuid;\n"
         "bool isTimeBaseSynchronized() const override;\n"
         "void forceTimeBaseSync() override;\n"
         "Error unbind(Seconds const&) override;\n"
         "Error unbindSync(Seconds const&) override;\n"
         "Error bind(Uuid const&, Seconds const&) override;\n"
         "Error bindSync(Uuid const&, Seconds const&) override;\n"
         "void terminate() override;\n"
         "std::uint32_t timeBase() const override;\n"
         "~Derived() override;\n",
         {{"~", "~", "timeBase", "terminate", "bindSync", "bind", "unbindSync", "unbind",
           "forceTimeBaseSync", "isTimeBaseSynchronized"}}},
        {"zym/common/binder_proxy.hpp",
         "zym::common::BinderProxy::Listener",
         "void onUnbound(zym::common::Binder::Error) override;\n"
         "void onBound(zym::common::Binder::Error) override;\n",
         {{"onBound", "onUnbound"}}},
        {"zym/common/synchronized_time_base_proxy.hpp",
         "zym::common::SynchronizedTimeBaseProxy",
         "using Uuid = zym::common::Uuid;\n"
         "void notifyListener() override;\n"
         "double localTimeBase() const override;\n"
         "void forceSync() override;\n"
         "bool stop() override;\n"
         "bool synchronize(Uuid const&, conv::SecondsDuration const&) override;\n"
         "bool startSync(Uuid const&) override;\n"
         "void registerListener(Listener*) override;\n"
         "void terminate() override;\n"
         "~Derived() override;\n"
         "std::uint32_t timeBase() const override;\n",
         {{"timeBase", "~", "~", "terminate", "registerListener", "startSync", "synchronize",
           "stop", "forceSync", "localTimeBase", "notifyListener"}}},
        {"zym/common/synchronized_time_base_proxy.hpp",
         "zym::common::SynchronizedTimeBaseProxy::Listener",
         "void onTimeSynchronized() override;\n",
         {{"onTimeSynchronized"}}},
        {"zym/common/synchronized_time_base_adaptor.hpp",
         "zym::common::SynchronizedTimeBaseAdaptor",
         "double localTimeBase() const override;\n"
         "~Derived() override;\n"
         "std::uint32_t timeBase() const override;\n",
         {{"timeBase", "~", "~", "localTimeBase"}}},
        {"zym/common/synchronized_time_base.hpp",
         "zym::common::SynchronizedTimeBase",
         "~Derived() override;\nstd::uint32_t timeBase() const override;\n",
         {{"timeBase", "~", "~"}}},
    });
}

} // namespace
