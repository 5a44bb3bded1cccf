// Every callback, on every thread that calls it by the guide's table of callbacks: its exceptions
// are logged and dropped, and the object calls it again.

#include "callback_test.hpp"
#include "guide.hpp"
#include "support/log_lines.hpp"

#include <gmock/gmock.h>

#include <stdexcept>
#include <thread>

namespace {

std::string threadNow(CallbackTest const& t, std::thread::id caller) {
    return t.client->onWorkerThread()             ? "worker"
           : std::this_thread::get_id() == caller ? "caller"
                                                  : "timer";
}

TEST(AThrowingCallback, IsLoggedAndCalledAgainOnEveryThread) {
    auto const caller = std::this_thread::get_id();
    for (Callback const& callback : callbacks()) {
        SCOPED_TRACE(callback.name + " " + callback.thread);
        support::LogLines const log(mqtt::LogLevel::ERROR);
        mqtt::test::Watched<int> calls;
        CallbackTest t; // destroyed first: it calls
        t.events.setHook([&](std::string const& event) {
            if (event.rfind(callback.event, 0) == 0) {
                EXPECT_EQ(threadNow(t, caller), callback.thread);
                calls.change([](int& count) { ++count; });
            }
            throw std::runtime_error("from " + event);
        });
        for (int time = 1; time <= 3; ++time) {
            int const before = calls.copy();
            callback.provoke(t, t.objects);
            ASSERT_TRUE(calls.waitFor([before](int count) { return count > before; }));
        }
        // The platform's timer does not know the log.
        EXPECT_TRUE(callback.name == "Timer" || log.waitFor(" has thrown: from " + callback.event));
    }
}

std::string lastPart(std::string const& name) {
    return name.substr(name.find_last_of(":/") + 1);
}

TEST(TheTableOfCallbacks, HasATestForEveryThreadAndNoOther) {
    std::vector<std::string> inTheTable;
    for (auto const& row : tableOfTheGuide("The callbacks")) {
        ASSERT_EQ(row.cells.size(), 3U) << row.names[0];
        EXPECT_THAT(row.cells[2], testing::StartsWith("dropped")) << row.names[0];
        for (auto const& [words, thread] :
             {std::pair("the worker", "worker"), std::pair("the thread", "caller"),
              std::pair("timer", "timer")}) {
            for (auto const& name : row.names) {
                if (row.cells[0].find(words) != std::string::npos) {
                    inTheTable.push_back(lastPart(name) + " " + thread);
                }
            }
        }
    }
    std::vector<std::string> tested;
    for (auto const& callback : callbacks()) {
        tested.push_back(callback.name + " " + callback.thread);
    }
    EXPECT_THAT(inTheTable, testing::UnorderedElementsAreArray(tested));
}

} // namespace
