#include "support/class_layout/class_layout.hpp"

#include <gmock/gmock.h>

#include <stdexcept>
#include <string>

namespace {

using support::virtualTables;
using testing::ElementsAre;

std::string const BINDER_PROXY = R"(
#include <zym/common/binder_proxy.hpp>
using Error = zym::common::Binder::Error;
using Seconds = conv::SecondsDuration;
using zym::common::Uuid;
struct Probe : zym::common::BinderProxy {
    bool isTimeBaseSynchronized() const override;
    void forceTimeBaseSync() override;
    Error unbind(Seconds const&) override;
    Error unbindSync(Seconds const&) override;
    Error bind(Uuid const&, Seconds const&) override;
    Error bindSync(Uuid const&, Seconds const&) override;
    void terminate() override;
    std::uint32_t timeBase() const override;
    ~Probe() override;
};
)";

std::string const TIME_BASE_PROXY = R"(
#include <zym/common/synchronized_time_base_proxy.hpp>
using zym::common::Uuid;
struct Probe : zym::common::SynchronizedTimeBaseProxy {
    void notifyListener() override;
    double localTimeBase() const override;
    void forceSync() override;
    bool stop() override;
    bool synchronize(Uuid const&, conv::SecondsDuration const&) override;
    bool startSync(Uuid const&) override;
    void registerListener(Listener*) override;
    void terminate() override;
    ~Probe() override;
    std::uint32_t timeBase() const override;
};
)";

TEST(TheSlotsOfTheBinderProxy, KeepTheirOrder) {
    EXPECT_THAT(virtualTables(BINDER_PROXY, "Probe").front(),
                ElementsAre("Probe::~Probe", "Probe::~Probe", "Probe::timeBase", "Probe::terminate",
                            "Probe::bindSync", "Probe::bind", "Probe::unbindSync", "Probe::unbind",
                            "Probe::forceTimeBaseSync", "Probe::isTimeBaseSynchronized"));
}

TEST(TheSlotsOfTheBinderProxysListener, KeepTheirOrder) {
    EXPECT_THAT(virtualTables("#include <zym/common/binder_proxy.hpp>\n"
                              "using Error = zym::common::Binder::Error;\n"
                              "struct Probe : zym::common::BinderProxy::Listener {\n"
                              "    void onUnbound(Error) override;\n"
                              "    void onBound(Error) override;\n"
                              "};\n",
                              "Probe")
                    .front(),
                ElementsAre("Probe::onBound", "Probe::onUnbound"));
}

TEST(TheSlotsOfTheTimeBaseProxy, KeepTheirOrder) {
    EXPECT_THAT(virtualTables(TIME_BASE_PROXY, "Probe").front(),
                ElementsAre("Probe::timeBase", "Probe::~Probe", "Probe::~Probe", "Probe::terminate",
                            "Probe::registerListener", "Probe::startSync", "Probe::synchronize",
                            "Probe::stop", "Probe::forceSync", "Probe::localTimeBase",
                            "Probe::notifyListener"));
}

TEST(TheSlotsOfTheTimeBaseProxysListener, AreTheOneCall) {
    EXPECT_THAT(virtualTables("#include <zym/common/synchronized_time_base_proxy.hpp>\n"
                              "struct Probe : zym::common::SynchronizedTimeBaseProxy::Listener {\n"
                              "    void onTimeSynchronized() override;\n"
                              "};\n",
                              "Probe")
                    .front(),
                ElementsAre("Probe::onTimeSynchronized"));
}

TEST(TheSlotsOfTheTimeBaseAdaptor, KeepTheirOrder) {
    EXPECT_THAT(
        virtualTables("#include <zym/common/synchronized_time_base_adaptor.hpp>\n"
                      "struct Probe : zym::common::SynchronizedTimeBaseAdaptor {\n"
                      "    double localTimeBase() const override;\n"
                      "    ~Probe() override;\n"
                      "    std::uint32_t timeBase() const override;\n"
                      "};\n",
                      "Probe")
            .front(),
        ElementsAre("Probe::timeBase", "Probe::~Probe", "Probe::~Probe", "Probe::localTimeBase"));
}

TEST(TheSlotsOfTheTimeBase, KeepTheirOrder) {
    EXPECT_THAT(virtualTables("#include <zym/common/synchronized_time_base.hpp>\n"
                              "struct Probe : zym::common::SynchronizedTimeBase {\n"
                              "    ~Probe() override;\n"
                              "    std::uint32_t timeBase() const override;\n"
                              "};\n",
                              "Probe")
                    .front(),
                ElementsAre("Probe::timeBase", "Probe::~Probe", "Probe::~Probe"));
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

TEST(TheReaderOfClassLayouts, RefusesASourceThatDoesNotCompile) {
    EXPECT_THROW(virtualTables("#error nonsense\n", "A"), std::runtime_error);
}

TEST(TheReaderOfClassLayouts, RefusesAClassWithoutAVirtualTable) {
    EXPECT_THROW(virtualTables("struct A { virtual void a(); }; struct B {};\n", "B"),
                 std::runtime_error);
}

} // namespace
