#include "support/stand_in/stand_in.hpp"
#include "testsupport/checks_frame.hpp"
#include "testsupport/hand_driven_pause.hpp"

#include <mosquittopp.h>

#include <cstddef>
#include <stdexcept>
#include <type_traits>

// Encoded, their names are known.
namespace house {

struct Fire : std::exception {
    char const* what() const noexcept override { return "it \"burns\""; }
};

struct Relapse : mqtt::test_error {};

} // namespace house

namespace {

using mqtt::TestCounter;
using support::StandIn;
using testing::AnyOf;
using testing::Each;
using testing::SizeIs;
using Operation = StandIn::Operation;

static_assert(std::is_base_of_v<std::runtime_error, mqtt::test_error>);
static_assert(offsetof(TestCounter, started) < offsetof(TestCounter, passed));
static_assert(offsetof(TestCounter, passed) < offsetof(TestCounter, failed));
static_assert(std::is_same_v<decltype(TestCounter::started), std::int32_t>);

TEST(ATestError, HasNothingToSay) {
    EXPECT_STREQ(mqtt::test_error().what(), "");
}

TEST(ACounter, StartsAtNought) {
    EXPECT_EQ(TestCounter(), (TestCounter{0, 0, 0}));
}

/// A check over a script in place of the broker library, and without its pauses.
class ACheck : public testing::Test {
protected:
    ACheck() { hand_driven_pause::reset(); }
    ~ACheck() override {
        hand_driven_pause::reset();
        StandIn::onConstruction({});
    }

    Checked topicClean(std::string const& topic = "a/b") {
        return Checked([&] { mqtt::testTopicClean(topic, counter); });
    }
    Checked linkInCollection(char const* message = "the link is there") {
        return Checked([&] { mqtt::testLinkInCollection("x/y", "links", message, counter); });
    }

    /// In the n-th pause the client under test gets a message; the check goes on when it has.
    static void deliverInPause(std::size_t n, std::string const& topic,
                               std::string const& payload) {
        hand_driven_pause::reset([=](std::size_t pause) {
            if (pause != n) {
                return;
            }
            StandIn::last()->deliver(topic, payload, 0, true);
            StandIn::last()->runInLoop([](auto&) {});
        });
    }

    TestCounter counter{10, 20, 30};
};

void expectTheClientOfAllChecks(StandIn const& script, std::string const& topic) {
    EXPECT_EQ(script.clientId(), "AAAAAAAAAAAAAAAAAAAAAA");
    EXPECT_TRUE(script.cleanSession());
    ASSERT_THAT(script.calls(Operation::CONNECT), SizeIs(1));
    EXPECT_EQ(script.calls(Operation::CONNECT)[0].topic, "localhost");
    EXPECT_EQ(script.calls(Operation::CONNECT)[0].qos, 1883);
    ASSERT_THAT(script.calls(Operation::SUBSCRIBE), SizeIs(1));
    EXPECT_EQ(script.calls(Operation::SUBSCRIBE)[0].topic, topic);
    EXPECT_TRUE(script.destroyed());
}

// Of a topic

using ACheckThatATopicIsClean = ACheck;

TEST_F(ACheckThatATopicIsClean, PassesWhenNothingArrives) {
    auto const checked = topicClean();
    EXPECT_TRUE(checked.passed);
    EXPECT_EQ(checked.text, startOf(cleanSubject("a/b")) + successOf(cleanSubject("a/b")));
    EXPECT_EQ(counter, (TestCounter{11, 21, 30}));
    EXPECT_THAT(hand_driven_pause::pauses(), SizeIs(5));
    EXPECT_THAT(hand_driven_pause::pauses(), Each(100));
    expectTheClientOfAllChecks(*StandIn::last(), "a/b");
}

TEST_F(ACheckThatATopicIsClean, PrintsTheTopicAndFailsWhenAMessageArrives) {
    for (std::size_t pause = 1; pause <= 4; ++pause) {
        counter = TestCounter{10, 20, 30};
        deliverInPause(pause, "a/b", "x");
        auto const checked = topicClean();
        EXPECT_FALSE(checked.passed);
        EXPECT_EQ(checked.message, "");
        EXPECT_EQ(checked.text,
                  startOf(cleanSubject("a/b")) + "a/b" + failureOf(cleanSubject("a/b")));
        EXPECT_EQ(counter, (TestCounter{11, 20, 31}));
        EXPECT_THAT(hand_driven_pause::pauses(), SizeIs(pause));
        EXPECT_TRUE(StandIn::last()->destroyed());
    }
}

TEST_F(ACheckThatATopicIsClean, DoesNotSeeAMessageInItsLastPause) {
    deliverInPause(5, "a/b", "x");
    auto const checked = topicClean();
    EXPECT_TRUE(checked.passed);
    EXPECT_EQ(checked.text, startOf(cleanSubject("a/b")) + "a/b" + successOf(cleanSubject("a/b")));
    EXPECT_EQ(counter, (TestCounter{11, 21, 30}));
}

TEST_F(ACheckThatATopicIsClean, PrintsTheTopicOfTheMessageAndNotThePattern) {
    deliverInPause(1, "a/x/y", "x");
    auto const checked = topicClean("/a/#/");
    EXPECT_FALSE(checked.passed);
    EXPECT_EQ(checked.text,
              startOf(cleanSubject("a/#")) + "a/x/y" + failureOf(cleanSubject("a/#")));
}

TEST_F(ACheckThatATopicIsClean, FailsForAnEmptyMessageToo) {
    deliverInPause(1, "a/b", "");
    EXPECT_FALSE(topicClean().passed);
}

TEST_F(ACheckThatATopicIsClean, ListensBeforeItSaysSo) {
    std::string before = "nothing";
    Output output;
    StandIn::onConstruction([&](StandIn& script) {
        script.setHook(Operation::SUBSCRIBE, [&](auto const&) {
            before = output.text();
            return std::optional<int>();
        });
    });
    mqtt::testTopicClean("a/b", counter);
    EXPECT_EQ(before, "");
}

TEST_F(ACheckThatATopicIsClean, PassesForATopicThatCannotBeSubscribed) {
    for (auto const* const topic : {"", "a/#/b"}) {
        EXPECT_TRUE(topicClean(topic).passed);
    }
}

// Of a link

using ACheckThatALinkIsThere = ACheck;

TEST_F(ACheckThatALinkIsThere, PassesWhenItShowsUp) {
    std::string const subject = "the link is there";
    for (std::size_t const pause : {1U, 2U, 30U}) {
        counter = TestCounter{10, 20, 30};
        deliverInPause(pause, "links", linksText({"x", "x/y"}));
        auto const checked = linkInCollection();
        EXPECT_TRUE(checked.passed);
        EXPECT_EQ(checked.text, startOf(subject) + successOf(subject));
        EXPECT_EQ(counter, (TestCounter{11, 21, 30}));
        EXPECT_THAT(hand_driven_pause::pauses(), SizeIs(pause));
        expectTheClientOfAllChecks(*StandIn::last(), "links");
    }
}

TEST_F(ACheckThatALinkIsThere, FailsAfterThirtyPauses) {
    deliverInPause(1, "links", linksText({"x", "x/y/z", "X/y"}));
    std::string const subject = "the link is there";
    auto const checked = linkInCollection();
    EXPECT_FALSE(checked.passed);
    EXPECT_EQ(checked.message, "");
    EXPECT_EQ(checked.text, startOf(subject) + failureOf(subject));
    EXPECT_EQ(counter, (TestCounter{11, 20, 31}));
    EXPECT_THAT(hand_driven_pause::pauses(), SizeIs(30));
    EXPECT_THAT(hand_driven_pause::pauses(), Each(100));
    EXPECT_TRUE(StandIn::last()->destroyed());
}

TEST_F(ACheckThatALinkIsThere, HasASubjectOfAnyText) {
    for (auto const* const message : {"", "\t\"%s\"\n"}) {
        auto const checked = linkInCollection(message);
        EXPECT_EQ(checked.text, startOf(message) + failureOf(message));
    }
}

TEST_F(ACheckThatALinkIsThere, FallsSilentWithoutASubject) {
    for (bool const isThere : {true, false}) {
        counter = TestCounter{10, 20, 30};
        deliverInPause(1, "links", linksText({isThere ? "x/y" : "other"}));
        bool streamHasFailed = false;
        auto const checked = Checked([&] {
            try {
                mqtt::testLinkInCollection("x/y", "links", nullptr, counter);
            } catch (mqtt::test_error const&) {
                streamHasFailed = std::cout.fail();
                throw;
            }
            streamHasFailed = std::cout.fail();
        });
        EXPECT_EQ(checked.passed, isThere);
        EXPECT_TRUE(streamHasFailed);
        EXPECT_EQ(checked.text, "\n" + PREFIX);
        EXPECT_EQ(counter, isThere ? (TestCounter{11, 21, 30}) : (TestCounter{11, 20, 31}));
    }
    EXPECT_TRUE(std::cout.good());
}

// What nobody expects

/// What goes wrong, and what is printed of it before the verdict, and in it.
struct Mishap {
    char const* name;
    void (*happen)();
    std::string before;
    std::string verdict;
};

void PrintTo(Mishap const& mishap, std::ostream* out) {
    *out << mishap.name;
}

std::string report(std::string const& type, std::string const& text) {
    return "[TEST-UTILS] \tException thrown:   " + type + "\n[TEST-UTILS] \twith message:       \""
           + text + "\"\n";
}

std::string const UNEXPECTED = " - FAILURE : UNEXPECTED EXCEPTION\n";

std::vector<Mishap> const MISHAPS{
    {"AStandardException", [] { throw std::runtime_error("no luck"); },
     report("St13runtime_error", "no luck"), UNEXPECTED},
    {"AnotherOne", [] { throw std::bad_alloc(); }, report("St9bad_alloc", "std::bad_alloc"),
     UNEXPECTED},
    {"OneOfOnesOwn", [] { throw house::Fire(); }, report("N5house4FireE", "it \"burns\""),
     UNEXPECTED},
    {"ANumber", [] { throw 42; }, "", " - FAILURE : UNEXPECTED EXCEPTION !!!\n"},
    {"AText", [] { throw "text"; }, "", " - FAILURE : UNEXPECTED EXCEPTION !!!\n"},
    {"ATestError", [] { throw mqtt::test_error(); }, "", " - FAILURE\n"},
    {"AKindOfTestError", [] { throw house::Relapse(); }, "", " - FAILURE\n"}};

class AMishap : public ACheck, public testing::WithParamInterface<Mishap> {
protected:
    std::string endOf(std::string const& subject) const {
        return GetParam().before + PREFIX + subject + GetParam().verdict;
    }
    /// A new test_error, whatever came.
    static void expectFailed(Checked const& checked) {
        EXPECT_FALSE(checked.passed);
        EXPECT_EQ(checked.message, "");
    }
};

TEST_P(AMishap, WhileTheClientIsMadeComesBeforeTheStart) {
    StandIn::onConstruction([](auto&) { GetParam().happen(); });
    auto const topic = topicClean();
    expectFailed(topic);
    EXPECT_EQ(topic.text, endOf(cleanSubject("a/b")));
    EXPECT_EQ(counter, (TestCounter{10, 20, 31}));
    auto const link = linkInCollection("subject");
    expectFailed(link);
    EXPECT_EQ(link.text, endOf("subject"));
    EXPECT_EQ(counter, (TestCounter{10, 20, 32}));
}

TEST_P(AMishap, WhileSubscribingComesBeforeTheStart) {
    StandIn::onConstruction([](StandIn& script) {
        script.setHook(Operation::SUBSCRIBE, [](auto const&) {
            GetParam().happen();
            return std::optional<int>();
        });
    });
    auto const topic = topicClean();
    expectFailed(topic);
    EXPECT_EQ(topic.text, endOf(cleanSubject("a/b")));
    EXPECT_TRUE(StandIn::last()->destroyed());
    auto const link = linkInCollection("subject");
    expectFailed(link);
    EXPECT_EQ(link.text, endOf("subject"));
    EXPECT_EQ(counter, (TestCounter{10, 20, 32}));
    EXPECT_TRUE(StandIn::last()->destroyed());
}

TEST_P(AMishap, InAPauseComesAfterTheStart) {
    hand_driven_pause::reset([](auto) { GetParam().happen(); });
    auto const topic = topicClean();
    expectFailed(topic);
    EXPECT_EQ(topic.text, startOf(cleanSubject("a/b")) + endOf(cleanSubject("a/b")));
    EXPECT_EQ(counter, (TestCounter{11, 20, 31}));
    auto const link = linkInCollection("subject");
    expectFailed(link);
    EXPECT_EQ(link.text, startOf("subject") + endOf("subject"));
    EXPECT_EQ(counter, (TestCounter{12, 20, 32}));
}

INSTANTIATE_TEST_SUITE_P(Of, AMishap, testing::ValuesIn(MISHAPS),
                         [](auto const& instance) { return instance.param.name; });

TEST(ACleanTopicChecker, PrintsTheTopicAloneAndRemembers) {
    Output output;
    mqtt::CleanTopicChecker checker;
    EXPECT_TRUE(checker.clean);
    checker.onMqttMessage(0, "a/b", "payload");
    EXPECT_FALSE(checker.clean);
    checker.onMqttMessage(0, "c", "");
    EXPECT_EQ(output.text(), "a/bc");
    EXPECT_FALSE(checker.clean);
}

} // namespace
