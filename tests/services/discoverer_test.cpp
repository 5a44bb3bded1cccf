#include "services/discoverer_fixture.hpp"

#include <algorithm>
#include <climits>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

TEST_F(ADiscoverer, EndsAtOnceWithAnEmptyList) {
    EXPECT_EQ(script_->count(Operation::SUBSCRIBE), 0U) << "before its first run";
    EXPECT_THAT(links(), IsEmpty());
    EXPECT_THAT(entities(), IsEmpty());
    retainLinks({"a"});
    retainEntity("a");
    ASSERT_TRUE(discoverer->discoverSync(SUCCESS_TIMEOUT_S, true));
    ASSERT_THAT(entities(), ElementsAre("a"));
    retainLinks({});
    EXPECT_TRUE(discoverer->discoverSync(SUCCESS_TIMEOUT_S, true));
    EXPECT_THAT(links(), IsEmpty());
    EXPECT_THAT(entities(), IsEmpty());
}

TEST_F(ADiscoverer, HasPlaceholdersWithoutIdentifications) {
    retainLinks({"a", "b/c"});
    retainEntity("a");
    EXPECT_TRUE(discoverer->discoverSync(SUCCESS_TIMEOUT_S, false));
    EXPECT_THAT(links(), ElementsAre("a", "b/c"));
    EXPECT_THAT(entities(), ElementsAre(UNKNOWN, UNKNOWN));
    EXPECT_EQ(script_->count(Operation::SUBSCRIBE), 1U);
    letTheStepEnd();
    EXPECT_THAT(subscribed(), IsEmpty());
}

TEST_F(ADiscoverer, HasTheAnswersInTheOrderOfTheLinks) {
    retainLinks({"a", "b", "c", "a"});
    auto run = startRun();
    ASSERT_TRUE(waitForSubscriptions(5));
    letTheStepEnd();
    for (auto const* const id : {"c", "a", "b"}) {
        EXPECT_TRUE(isUnderWay(run));
        answer(id);
    }
    EXPECT_TRUE(run.get());
    EXPECT_THAT(links(), ElementsAre("a", "b", "c", "a"));
    EXPECT_THAT(entities(), ElementsAre("a", "b", "c", "a"));
    letTheStepEnd();
    EXPECT_THAT(subscribed(), IsEmpty());
}

TEST_F(ADiscoverer, TimesOutWhenAnAnswerOrTheListIsMissing) {
    EXPECT_FALSE(discoverer->discoverSync(0, true));
    EXPECT_FALSE(discoverer->discoverSync(1, false));
    EXPECT_THAT(links(), IsEmpty());
    retainLinks({"a", "b", "c"});
    retainEntity("a");
    retainEntity("c");
    EXPECT_FALSE(discoverer->discoverSync(1, true));
    EXPECT_THAT(links(), ElementsAre("a", "b", "c"));
    EXPECT_THAT(entities(), ElementsAre("a", UNKNOWN, "c"));
    letTheStepEnd();
    EXPECT_EQ(script_->count(Operation::SUBSCRIBE), 6U);
    EXPECT_THAT(subscribed(), IsEmpty());
}

TEST_F(ADiscoverer, WaitsOnWhenTheListIsErasedOrMalformedAndWhenAnIdentificationIsErased) {
    retain("a/identification", "");
    auto run = startRun();
    ASSERT_TRUE(waitForSubscriptions(1));
    for (auto const* const payload :
         {"", "nonsense", "{}", R"({"members@count": 1, "members": [{"@id": "x"}, {}]})"}) {
        deliver(ENTITIES, payload);
    }
    EXPECT_TRUE(isUnderWay(run));
    EXPECT_THAT(links(), IsEmpty());
    EXPECT_THAT(subscribed(), ElementsAre(ENTITIES));
    deliver(ENTITIES, listOf({"a"}));
    EXPECT_TRUE(isUnderWay(run));
    EXPECT_THAT(entities(), ElementsAre(UNKNOWN));
    answer("a");
    EXPECT_TRUE(run.get());
    EXPECT_THAT(entities(), ElementsAre("a"));
}

TEST_F(ADiscoverer, TakesOneListOnly) {
    auto run = startRun(SUCCESS_TIMEOUT_S, false);
    ASSERT_TRUE(waitForSubscriptions(1));
    script_->deliver(ENTITIES, listOf({"a"}));
    deliver(ENTITIES, listOf({"b"}));
    listLate({"c"});
    EXPECT_TRUE(run.get());
    EXPECT_THAT(links(), ElementsAre("a"));
}

TEST_F(ADiscoverer, TakesOneAnswerOfEachEntityOnly) {
    retainLinks({"a", "b"});
    auto run = startRun();
    ASSERT_TRUE(waitForSubscriptions(3));
    letTheStepEnd();
    for (int const position : {-1, 2, INT_MAX, INT_MIN}) {
        answerLate("of an entity that is not in the list", position);
    }
    answer("a");
    deliver("a/identification", R"({"name": "again"})");
    answerLate("once more", 0);
    EXPECT_TRUE(isUnderWay(run));
    answer("b");
    EXPECT_TRUE(run.get());
    EXPECT_THAT(entities(), ElementsAre("a", "b"));
}

TEST_F(ADiscoverer, TimesOutWithLinksThatMakeInvalidTopics) {
    retainLinks({"#", "a/#", "a+", "a#/b", "x\\u0000y", "\xff\xfe", "a/b\\u0000", "good"});
    retainEntity("good");
    EXPECT_FALSE(discoverer->discoverSync(1, true));
    EXPECT_THAT(links(), SizeIs(8));
    auto const found = entities();
    ASSERT_THAT(found, SizeIs(8));
    EXPECT_EQ(std::count(found.begin(), found.end(), UNKNOWN), 7);
    EXPECT_EQ(found.back(), "good");
    EXPECT_THAT(topics(Operation::SUBSCRIBE), ElementsAre(ENTITIES, "good/identification"));
    letTheStepEnd();
    EXPECT_THAT(subscribed(), IsEmpty());
}

TEST_F(ADiscoverer, TimesOutOnATopicThatCannotBeSubscribed) {
    for (auto const* const topic : {"", "a/#/b"}) {
        Discoverer refused(*client_, topic);
        EXPECT_FALSE(refused.discoverSync(1, true));
    }
    EXPECT_EQ(script_->count(Operation::SUBSCRIBE), 0U);
}

class AWaitForChange : public ADiscoverer {
protected:
    void discover(Strings const& ids) {
        retainLinks(ids);
        ASSERT_TRUE(discoverer->discoverSync(SUCCESS_TIMEOUT_S, false));
    }
    bool isChange(Strings const& ids) {
        retainLinks(ids);
        bool const changed = discoverer->waitChange(1, false);
        EXPECT_EQ(links(), ids);
        letTheStepEnd();
        EXPECT_THAT(subscribed(), IsEmpty());
        return changed;
    }
};

TEST_F(AWaitForChange, TimesOutOnTheSameListOnly) {
    EXPECT_FALSE(isChange({})) << "as at first";
    EXPECT_TRUE(isChange({"a"}));
    EXPECT_FALSE(isChange({"a"}));
    EXPECT_TRUE(isChange({"b"}));
    EXPECT_TRUE(isChange({"B"}));
    EXPECT_TRUE(isChange({"B", "c"}));
    EXPECT_FALSE(isChange({"B", "c"}));
    EXPECT_THAT(entities(), ElementsAre(UNKNOWN, UNKNOWN));
    EXPECT_TRUE(isChange({"c", "B"}));
    EXPECT_TRUE(isChange({"c"}));
    EXPECT_TRUE(isChange({}));
    EXPECT_TRUE(discoverer->discoverSync(SUCCESS_TIMEOUT_S, false)) << "without a change";
}

TEST_F(AWaitForChange, GoesOnUntilAnotherListComes) {
    discover({"a"});
    auto run = startRun(SUCCESS_TIMEOUT_S, true, true);
    ASSERT_TRUE(waitForSubscriptions(2));
    letTheStepEnd();
    deliver(ENTITIES, listOf({"a"}));
    EXPECT_TRUE(isUnderWay(run));
    EXPECT_THAT(subscribed(), ElementsAre(ENTITIES));
    retainEntity("b");
    deliver(ENTITIES, listOf({"b"}));
    EXPECT_TRUE(run.get());
    EXPECT_THAT(entities(), ElementsAre("b"));
}

TEST_F(AWaitForChange, ComparesWithTheListOfARunThatTimedOut) {
    retainLinks({"a"});
    ASSERT_FALSE(discoverer->discoverSync(1, true));
    EXPECT_FALSE(isChange({"a"}));
}

} // namespace
