#include "mqtt/mosquittopp.hpp"
#include "mqtt/test/watched.hpp"
#include "services/link_list.hpp"
#include "support/stand_in/stand_in.hpp"

#include <mqtt/test_checks.hpp>
#include <zym/common/test.hpp>

#include <gmock/gmock.h>

#include <cstddef>
#include <functional>
#include <iostream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

// Not in an anonymous namespace, because the encoded names are printed.
namespace check_test {

struct OwnError : std::exception {
    char const* what() const noexcept override { return "it \"burns\""; }
};

struct DerivedTestError : mqtt::test_error {};

} // namespace check_test

namespace {

/// The pauses of the check under way, in milliseconds. All on the thread of the test.
std::vector<unsigned> pauses;
/// Called in the n-th pause, counted from 1.
std::function<void(std::size_t)> onPause;

} // namespace

// In the program itself, this function takes precedence over that of the shared library.
void zym::common::test::sleep(unsigned milliseconds) {
    pauses.push_back(milliseconds);
    if (onPause) {
        onPause(pauses.size());
    }
}

namespace {

using mqtt::TestCounter;
using support::StandIn;
using testing::Each;
using testing::SizeIs;
using Operation = StandIn::Operation;

using Counts = std::vector<std::int32_t>;

Counts countsOf(TestCounter const& counter) {
    return {counter.started, counter.passed, counter.failed};
}

std::string const PREFIX = "[TEST-UTILS] ";

std::string startOf(std::string const& subject) {
    return "\n" + PREFIX + subject + "...\n";
}
std::string successOf(std::string const& subject) {
    return PREFIX + subject + " - SUCCESS\n";
}
std::string failureOf(std::string const& subject) {
    return PREFIX + subject + " - FAILURE\n";
}
std::string cleanSubject(std::string const& topic) {
    return "Check topic \"" + topic + "\" has been cleaned";
}

/// Takes what is written to the standard output while it lives, from any thread.
class CapturedOutput : private std::streambuf {
public:
    CapturedOutput() : before_(std::cout.rdbuf(this)) {}
    ~CapturedOutput() override {
        std::cout.rdbuf(before_); // clears the state too
    }
    CapturedOutput(CapturedOutput const&) = delete;
    CapturedOutput& operator=(CapturedOutput const&) = delete;

    std::string text() const { return text_.copy(); }

private:
    int_type overflow(int_type character) override {
        text_.change([&](auto& text) { text += traits_type::to_char_type(character); });
        return character;
    }
    std::streamsize xsputn(char const* bytes, std::streamsize count) override {
        text_.change([&](auto& text) { text.append(bytes, static_cast<std::size_t>(count)); });
        return count;
    }

    mqtt::test::Watched<std::string> text_;
    std::streambuf* before_;
};

/// Runs a check; keeps what it prints and whether it passed.
struct CheckResult {
    explicit CheckResult(std::function<void()> const& check) {
        CapturedOutput const output;
        try {
            check();
            passed = true;
        } catch (mqtt::test_error const& error) {
            message = error.what();
        }
        text = output.text();
    }

    bool passed = false;
    std::string message; ///< of the test_error
    std::string text;
};

static_assert(std::is_base_of_v<std::runtime_error, mqtt::test_error>);
static_assert(offsetof(TestCounter, started) < offsetof(TestCounter, passed));
static_assert(offsetof(TestCounter, passed) < offsetof(TestCounter, failed));
static_assert(std::is_same_v<decltype(TestCounter::started), std::int32_t>);

TEST(ATestError, HasAnEmptyMessage) {
    EXPECT_STREQ(mqtt::test_error().what(), "");
}

/// A check with the stand-in for the broker library, and without its pauses.
class ACheck : public testing::Test {
protected:
    ACheck() { setPauseHook({}); }
    ~ACheck() override {
        setPauseHook({});
        StandIn::onConstruction({});
    }

    /// Forgets the pauses so far.
    static void setPauseHook(std::function<void(std::size_t)> hook) {
        pauses.clear();
        onPause = std::move(hook);
    }

    CheckResult topicClean(std::string const& topic = "a/b") {
        return CheckResult([&] { mqtt::testTopicClean(topic, counter); });
    }
    CheckResult linkInCollection(char const* message = "the link is there") {
        return CheckResult([&] { mqtt::testLinkInCollection("x/y", "links", message, counter); });
    }

    /// In the n-th pause the client under test gets a message; the check goes on when it has.
    static void deliverInPause(std::size_t n, std::string const& topic,
                               std::string const& payload) {
        setPauseHook([=](std::size_t pause) {
            if (pause != n) {
                return;
            }
            StandIn::last()->deliver(topic, payload, 0, true);
            StandIn::last()->runInLoop([](auto&) {});
        });
    }

    static void whenSubscribing(std::function<void()> const& action) {
        StandIn::onConstruction([action](StandIn& standIn) {
            standIn.setHook(Operation::SUBSCRIBE, [action](auto const&) {
                action();
                return std::optional<int>();
            });
        });
    }

    /// Of the check that began with this counter.
    void expectEnd(CheckResult const& result, bool passes, std::string const& text) {
        EXPECT_EQ(result.passed, passes);
        EXPECT_EQ(result.message, "");
        EXPECT_EQ(result.text, text);
        EXPECT_EQ(countsOf(counter), passes ? (Counts{11, 21, 30}) : (Counts{11, 20, 31}));
        EXPECT_THAT(pauses, Each(100));
        EXPECT_TRUE(StandIn::last()->destroyed());
        counter = TestCounter{10, 20, 30};
    }

    TestCounter counter{10, 20, 30};
};

void expectTheClientOfAllChecks(StandIn const& standIn, std::string const& topic) {
    EXPECT_EQ(standIn.clientId(), "AAAAAAAAAAAAAAAAAAAAAA");
    EXPECT_TRUE(standIn.cleanSession());
    ASSERT_THAT(standIn.calls(Operation::CONNECT), SizeIs(1));
    EXPECT_EQ(standIn.calls(Operation::CONNECT)[0].topic, "localhost");
    EXPECT_EQ(standIn.calls(Operation::CONNECT)[0].qos, 1883);
    ASSERT_THAT(standIn.calls(Operation::SUBSCRIBE), SizeIs(1));
    EXPECT_EQ(standIn.calls(Operation::SUBSCRIBE)[0].topic, topic);
}

using ACheckThatATopicIsClean = ACheck;

TEST_F(ACheckThatATopicIsClean, PassesWhenNothingArrives) {
    expectEnd(topicClean(), true, startOf(cleanSubject("a/b")) + successOf(cleanSubject("a/b")));
    EXPECT_THAT(pauses, SizeIs(5));
    expectTheClientOfAllChecks(*StandIn::last(), "a/b");
    EXPECT_TRUE(topicClean("a/#/b").passed) << "though it cannot be subscribed";
}

TEST_F(ACheckThatATopicIsClean, PassesWithoutABroker) {
    StandIn::onConstruction([](StandIn& standIn) { standIn.answer(Operation::CONNECT, {14}); });
    EXPECT_TRUE(topicClean().passed);
}

TEST_F(ACheckThatATopicIsClean, PrintsTheTopicAndFailsWhenAMessageArrivesBeforeItsLastPause) {
    for (std::size_t pause = 1; pause <= 5; ++pause) {
        bool const passes = pause == 5;
        auto const subject = cleanSubject("a/b");
        deliverInPause(pause, "a/b", pause == 1 ? "" : "x");
        expectEnd(topicClean(), passes,
                  startOf(subject) + "a/b" + (passes ? successOf(subject) : failureOf(subject)));
        EXPECT_THAT(pauses, SizeIs(pause));
    }
}

TEST_F(ACheckThatATopicIsClean, PrintsTheTopicOfTheMessageAndNotThePattern) {
    deliverInPause(1, "a/x/y", "x");
    EXPECT_EQ(topicClean("/a/#/").text,
              startOf(cleanSubject("a/#")) + "a/x/y" + failureOf(cleanSubject("a/#")));
}

TEST_F(ACheckThatATopicIsClean, SubscribesBeforeItPrints) {
    std::string before = "nothing";
    CapturedOutput const output;
    whenSubscribing([&] { before = output.text(); });
    mqtt::testTopicClean("a/b", counter);
    EXPECT_EQ(before, "");
}

using ACheckThatALinkIsThere = ACheck;

TEST_F(ACheckThatALinkIsThere, PassesWhenItIsPublished) {
    for (std::size_t const pause : {1U, 30U}) {
        deliverInPause(pause, "links", listOf({"x", "x/y"}));
        expectEnd(linkInCollection("it is there"), true,
                  startOf("it is there") + successOf("it is there"));
        EXPECT_THAT(pauses, SizeIs(pause));
        expectTheClientOfAllChecks(*StandIn::last(), "links");
    }
}

TEST_F(ACheckThatALinkIsThere, FailsAfterThirtyPauses) {
    for (auto const* const subject : {"the link is there", "", "\t\"%s\"\n"}) {
        deliverInPause(1, "links", listOf({"x", "x/y/z", "X/y"}));
        expectEnd(linkInCollection(subject), false, startOf(subject) + failureOf(subject));
        EXPECT_THAT(pauses, SizeIs(30));
    }
}

TEST_F(ACheckThatALinkIsThere, PrintsNothingMoreAfterASubjectThatIsNull) {
    for (bool const isThere : {true, false}) {
        deliverInPause(1, "links", listOf({isThere ? "x/y" : "other"}));
        expectEnd(linkInCollection(nullptr), isThere, "\n" + PREFIX);
    }
    EXPECT_TRUE(std::cout.good());
}

/// What is thrown inside a check, and what is printed of it before the verdict, and as verdict.
struct Thrown {
    void (*raise)();
    std::string before;
    std::string verdict;
};

std::string report(std::string const& type, std::string const& text) {
    return PREFIX + "\tException thrown:   " + type + "\n" + PREFIX + "\twith message:       \""
           + text + "\"\n";
}

std::string const UNEXPECTED = " - FAILURE : UNEXPECTED EXCEPTION\n";

std::vector<Thrown> const THROWN{
    {[] { throw std::runtime_error("no luck"); }, report("St13runtime_error", "no luck"),
     UNEXPECTED},
    {[] { throw check_test::OwnError(); }, report("N10check_test8OwnErrorE", "it \"burns\""),
     UNEXPECTED},
    {[] { throw 42; }, "", " - FAILURE : UNEXPECTED EXCEPTION !!!\n"},
    {[] { throw mqtt::test_error(); }, "", " - FAILURE\n"},
    {[] { throw check_test::DerivedTestError(); }, "", " - FAILURE\n"}};

class AnExceptionInACheck : public ACheck {
protected:
    /// Both checks throw at the moment that was prepared.
    void expectFailure(Thrown const& thrown, bool started) {
        SCOPED_TRACE(started);
        counter = TestCounter{10, 20, 30};
        auto const expectReport = [&](CheckResult const& result, std::string const& subject) {
            EXPECT_FALSE(result.passed);
            EXPECT_EQ(result.message, "");
            EXPECT_EQ(result.text, (started ? startOf(subject) : "") + thrown.before + PREFIX
                                       + subject + thrown.verdict);
        };
        expectReport(topicClean(), cleanSubject("a/b"));
        expectReport(linkInCollection("subject"), "subject");
        EXPECT_EQ(countsOf(counter), started ? (Counts{12, 20, 32}) : (Counts{10, 20, 32}));
    }
};

TEST_F(AnExceptionInACheck, IsPrintedAndBecomesATestError) {
    for (auto const& thrown : THROWN) {
        SCOPED_TRACE(thrown.before + thrown.verdict);
        StandIn::onConstruction([&](auto&) { thrown.raise(); });
        expectFailure(thrown, false);
        whenSubscribing(thrown.raise);
        expectFailure(thrown, false);
        EXPECT_TRUE(StandIn::last()->destroyed());
        StandIn::onConstruction({});
        setPauseHook([&](auto) { thrown.raise(); });
        expectFailure(thrown, true);
        setPauseHook({});
    }
}

TEST(ACleanTopicChecker, PrintsTheTopicAloneAndRemembers) {
    CapturedOutput const output;
    mqtt::CleanTopicChecker checker;
    EXPECT_TRUE(checker.clean);
    checker.onMqttMessage(0, "a/b", "payload");
    checker.onMqttMessage(0, "c", "");
    EXPECT_EQ(output.text(), "a/bc");
    EXPECT_FALSE(checker.clean);
}

} // namespace
