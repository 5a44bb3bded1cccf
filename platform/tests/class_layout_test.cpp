// The virtual tables of all public classes of the platform library.

#include "common/class_layout_table.hpp"

#include <stdexcept>

namespace {

using support::virtualTables;
using testing::ElementsAre;

ClassLayout const LAYOUTS[] = {
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
     {{"timeBase", "~", "~", "terminate", "registerListener", "startSync", "synchronize", "stop",
       "forceSync", "localTimeBase", "notifyListener"}}},
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
};

class ThePlatformsSlots : public testing::TestWithParam<ClassLayout> {};
INSTANTIATE_TEST_SUITE_P(Of, ThePlatformsSlots, testing::ValuesIn(LAYOUTS), nameOfLayout);

TEST_P(ThePlatformsSlots, KeepTheirOrder) {
    expectLayout(GetParam());
}

TEST(TheReaderOfClassLayouts, TellsTheTablesOfSeveralBasesApart) {
    auto const tables = virtualTables("struct A { virtual void a(); };\n"
                                      "struct B { virtual void b(int); virtual void b2(); };\n"
                                      "namespace n { struct C : A, virtual B {\n"
                                      "    void a() override; void b(int) override;\n"
                                      "}; }\n",
                                      "n::C");
    ASSERT_EQ(tables.size(), 2U);
    EXPECT_THAT(tables[0], ElementsAre("n::C::a", "n::C::b"));
    EXPECT_THAT(tables[1], ElementsAre("n::C::b", "B::b2"));
}

TEST(TheReaderOfClassLayouts, RefusesWhatHasNoTable) {
    EXPECT_THROW(virtualTables("#error nonsense\n", "A"), std::runtime_error);
    EXPECT_THROW(virtualTables("struct A { virtual void a(); }; struct B {};\n", "B"),
                 std::runtime_error);
}

} // namespace
