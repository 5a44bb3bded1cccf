#include "services/discoverer_frame.hpp"

#include <climits>

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

TEST_F(ADiscoverer, HasFoundNothingAtFirst) {
    EXPECT_EQ(script_->count(Operation::SUBSCRIBE), 0U);
    EXPECT_THAT(links(), IsEmpty());
    EXPECT_THAT(entities(), IsEmpty());
}

TEST_F(ADiscoverer, IsDoneAtOnceWithAnEmptyList) {
    retainLinks({});
    EXPECT_TRUE(discoverer->discoverSync(LONG_ENOUGH, true));
    EXPECT_THAT(links(), IsEmpty());
    EXPECT_THAT(entities(), IsEmpty());
}

TEST_F(ADiscoverer, ForgetsItsEntitiesWithAnEmptyList) {
    retainLinks({"a"});
    retainEntity("a");
    ASSERT_TRUE(discoverer->discoverSync(LONG_ENOUGH, true));
    ASSERT_THAT(entities(), ElementsAre(textsOf("a")));
    retainLinks({});
    EXPECT_TRUE(discoverer->discoverSync(LONG_ENOUGH, true));
    EXPECT_THAT(links(), IsEmpty());
    EXPECT_THAT(entities(), IsEmpty());
}

TEST_F(ADiscoverer, HasPlaceholdersWhereNobodyWasAsked) {
    retainLinks({"a", "b/c"});
    retainEntity("a");
    EXPECT_TRUE(discoverer->discoverSync(LONG_ENOUGH, false));
    EXPECT_THAT(links(), ElementsAre("a", "b/c"));
    EXPECT_THAT(entities(), ElementsAre(PLACEHOLDER, PLACEHOLDER));
    EXPECT_EQ(script_->count(Operation::SUBSCRIBE), 1U);
}

TEST_F(ADiscoverer, HasTheAnswersInTheOrderOfTheLinks) {
    retainLinks({"a", "b", "c"});
    auto run = launch();
    ASSERT_TRUE(waitForSubscriptions(4));
    letTheStepEnd();
    for (auto const* const id : {"c", "a", "b"}) {
        EXPECT_TRUE(isUnderWay(run));
        answer(id);
    }
    EXPECT_TRUE(run.get());
    EXPECT_THAT(links(), ElementsAre("a", "b", "c"));
    EXPECT_THAT(entities(), ElementsAre(textsOf("a"), textsOf("b"), textsOf("c")));
}

TEST_F(ADiscoverer, RunsOutOfTimeWhenOneNeverAnswers) {
    retainLinks({"a", "b", "c"});
    retainEntity("a");
    retainEntity("c");
    EXPECT_FALSE(discoverer->discoverSync(1, true));
    EXPECT_THAT(links(), ElementsAre("a", "b", "c"));
    EXPECT_THAT(entities(), ElementsAre(textsOf("a"), PLACEHOLDER, textsOf("c")));
}

TEST_F(ADiscoverer, RunsOutOfTimeWithoutAList) {
    EXPECT_FALSE(discoverer->discoverSync(0, true));
    EXPECT_FALSE(discoverer->discoverSync(1, false));
    EXPECT_THAT(links(), IsEmpty());
}

TEST_F(ADiscoverer, WaitsOnWhenTheListIsCleared) {
    auto run = launch();
    ASSERT_TRUE(waitForSubscriptions(1));
    deliver(ENTITIES, "");
    EXPECT_TRUE(isUnderWay(run));
    EXPECT_THAT(subscribed(), ElementsAre(ENTITIES));
    retainEntity("a");
    deliver(ENTITIES, listOf({"a"}));
    EXPECT_TRUE(run.get());
    EXPECT_THAT(entities(), ElementsAre(textsOf("a")));
}

TEST_F(ADiscoverer, WaitsOnWhenTheListIsMalformed) {
    auto run = launch();
    ASSERT_TRUE(waitForSubscriptions(1));
    for (auto const* const payload :
         {"nonsense", "{}", R"({"members@count": 1, "members": [{"@id": "x"}, {}]})"}) {
        deliver(ENTITIES, payload);
    }
    EXPECT_TRUE(isUnderWay(run));
    EXPECT_THAT(links(), IsEmpty());
    deliver(ENTITIES, listOf({}));
    EXPECT_TRUE(run.get());
}

TEST_F(ADiscoverer, WaitsOnWhenAnIdentificationIsCleared) {
    retainLinks({"a"});
    retain("a/identification", "");
    auto run = launch();
    ASSERT_TRUE(waitForSubscriptions(2));
    letTheStepEnd();
    EXPECT_TRUE(isUnderWay(run));
    EXPECT_THAT(entities(), ElementsAre(PLACEHOLDER));
    answer("a");
    EXPECT_TRUE(run.get());
    EXPECT_THAT(entities(), ElementsAre(textsOf("a")));
}

TEST_F(ADiscoverer, TakesAMalformedIdentificationForAnAnswer) {
    retainLinks({"a", "b"});
    retain("a/identification", "nonsense");
    retain("b/identification", R"({"name": "b", "version": 7})");
    EXPECT_TRUE(discoverer->discoverSync(LONG_ENOUGH, true));
    EXPECT_THAT(entities()[0], Each(""));
    EXPECT_THAT(entities()[1], ElementsAre("", "", "", "", "", "b", "", "", "", ""));
}

TEST_F(ADiscoverer, TakesOneListOnly) {
    auto run = launch(LONG_ENOUGH, false);
    ASSERT_TRUE(waitForSubscriptions(1));
    script_->deliver(ENTITIES, listOf({"a"}));
    deliver(ENTITIES, listOf({"b"}));
    listLate({"c"});
    EXPECT_TRUE(run.get());
    EXPECT_THAT(links(), ElementsAre("a"));
}

TEST_F(ADiscoverer, TakesOneAnswerOfEachEntityOnly) {
    retainLinks({"a", "b"});
    auto run = launch();
    ASSERT_TRUE(waitForSubscriptions(3));
    letTheStepEnd();
    answer("a");
    deliver("a/identification", identificationOf("again"));
    answerLate("once more", 0);
    EXPECT_TRUE(isUnderWay(run));
    answer("b");
    EXPECT_TRUE(run.get());
    EXPECT_THAT(entities(), ElementsAre(textsOf("a"), textsOf("b")));
}

TEST_F(ADiscoverer, IgnoresAnswersOfWhomItNeverAsked) {
    retainLinks({"a"});
    auto run = launch();
    ASSERT_TRUE(waitForSubscriptions(2));
    letTheStepEnd();
    for (int const position : {-1, 1, INT_MAX, INT_MIN}) {
        answerLate("nobody", position);
    }
    EXPECT_TRUE(isUnderWay(run));
    answer("a");
    EXPECT_TRUE(run.get());
    EXPECT_THAT(entities(), ElementsAre(textsOf("a")));
}

TEST_F(ADiscoverer, AsksTwoLinksOfTheSameIdBoth) {
    retainLinks({"a", "b", "a"});
    retainEntity("a");
    retainEntity("b");
    EXPECT_TRUE(discoverer->discoverSync(LONG_ENOUGH, true));
    EXPECT_THAT(entities(), ElementsAre(textsOf("a"), textsOf("b"), textsOf("a")));
    letTheStepEnd();
    EXPECT_THAT(subscribed(), IsEmpty());
}

TEST_F(ADiscoverer, FindsTwoHundredEntities) {
    Strings ids;
    for (int i = 0; i < 200; ++i) {
        ids.push_back("entity/" + std::to_string(i));
        retainEntity(ids.back());
    }
    retainLinks(ids);
    EXPECT_TRUE(discoverer->discoverSync(LONG_ENOUGH, true));
    EXPECT_EQ(links(), ids);
    ASSERT_THAT(entities(), SizeIs(200));
    for (std::size_t i = 0; i < ids.size(); ++i) {
        EXPECT_EQ(entities()[i], textsOf(ids[i]));
    }
    letTheStepEnd();
    EXPECT_THAT(subscribed(), IsEmpty());
}

TEST_F(ADiscoverer, ListensToNothingAfterSuccess) {
    retainLinks({"a", "b"});
    retainEntity("a");
    retainEntity("b");
    for (bool const withIdentification : {true, false}) {
        EXPECT_TRUE(discoverer->discoverSync(LONG_ENOUGH, withIdentification));
        letTheStepEnd();
        EXPECT_THAT(subscribed(), IsEmpty());
    }
}

TEST_F(ADiscoverer, ListensToNothingWhenOutOfTime) {
    EXPECT_FALSE(discoverer->discoverSync(0, true));
    letTheStepEnd();
    EXPECT_THAT(subscribed(), IsEmpty());
    retainLinks({"a", "b"});
    retainEntity("b");
    EXPECT_FALSE(discoverer->discoverSync(1, true));
    letTheStepEnd();
    EXPECT_EQ(script_->count(Operation::SUBSCRIBE), 4U);
    EXPECT_THAT(subscribed(), IsEmpty());
}

TEST_F(ADiscoverer, MeetsLinksThatMakeOddTopics) {
    // Each of them stands for an entity that does not answer.
    Strings const refused{"#", "a/#", "a+", "a#/b", "x\\u0000y", "\xff\xfe", "a/b\\u0000"};
    for (auto const& id : refused) {
        retainLinks({"good", id});
        retainEntity("good");
        EXPECT_FALSE(discoverer->discoverSync(1, true)) << id;
        EXPECT_THAT(links(), SizeIs(2)) << id;
        EXPECT_THAT(entities(), ElementsAre(textsOf("good"), PLACEHOLDER)) << id;
        EXPECT_EQ(script_->calls(Operation::SUBSCRIBE).back().topic, "good/identification") << id;
        letTheStepEnd();
        EXPECT_THAT(subscribed(), IsEmpty()) << id;
    }
}

TEST_F(ADiscoverer, AsksOnTheTopicThatALinksTextMakes) {
    std::map<std::string, std::string> const topics{
        {"", "identification"},
        {"/", "identification"},
        {"/a/", "a/identification"},
        {"a//b", "a//b/identification"},
        {"+", "+/identification"},
        {std::string(1000, 'x'), std::string(1000, 'x') + "/identification"}};
    for (auto const& [id, topic] : topics) {
        retainLinks({id});
        retain(topic, identificationOf("odd"));
        EXPECT_TRUE(discoverer->discoverSync(LONG_ENOUGH, true)) << id;
        EXPECT_THAT(links(), ElementsAre(id));
        EXPECT_THAT(entities(), ElementsAre(textsOf("odd"))) << id;
        EXPECT_EQ(script_->calls(Operation::SUBSCRIBE).back().topic, topic);
        letTheStepEnd();
        EXPECT_THAT(subscribed(), IsEmpty()) << id;
    }
}

TEST_F(ADiscoverer, MayListenWhereItsEntitiesAnswer) {
    discoverer = std::make_unique<Discoverer>(*client_, "a/identification");
    retain("a/identification", listOf({"a"}));
    EXPECT_TRUE(discoverer->discoverSync(LONG_ENOUGH, true));
    EXPECT_THAT(links(), ElementsAre("a"));
    EXPECT_THAT(entities()[0], Each(""));
}

TEST_F(ADiscoverer, OnATopicThatTheBrokerRefusesRunsOutOfTime) {
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
        ASSERT_TRUE(discoverer->discoverSync(LONG_ENOUGH, false));
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

TEST_F(AWaitForChange, EndsByTimeOutOnTheSameList) {
    discover({"a", "b"});
    EXPECT_FALSE(isChange({"a", "b"}));
    EXPECT_THAT(links(), ElementsAre("a", "b"));
    EXPECT_THAT(entities(), ElementsAre(PLACEHOLDER, PLACEHOLDER));
}

TEST_F(AWaitForChange, EndsByTimeOutOnAFirstListThatIsEmpty) {
    EXPECT_FALSE(isChange({}));
}

TEST_F(AWaitForChange, SeesAFirstListThatIsNotEmpty) {
    EXPECT_TRUE(isChange({"a"}));
}

TEST_F(AWaitForChange, SeesTheSameLinksInAnotherOrder) {
    discover({"a", "b"});
    EXPECT_TRUE(isChange({"b", "a"}));
}

TEST_F(AWaitForChange, SeesOneByte) {
    discover({"plant/a", "plant/b"});
    EXPECT_TRUE(isChange({"plant/a", "plant/c"}));
    EXPECT_TRUE(isChange({"Plant/a", "plant/c"}));
}

TEST_F(AWaitForChange, SeesMoreAndFewer) {
    discover({"a", "b"});
    EXPECT_TRUE(isChange({"a", "b", "c"}));
    EXPECT_TRUE(isChange({"a", "b"}));
    EXPECT_TRUE(isChange({}));
}

TEST_F(AWaitForChange, GoesOnUntilAnotherListComes) {
    discover({"a"});
    auto run = launch(LONG_ENOUGH, true, true);
    ASSERT_TRUE(waitForSubscriptions(2));
    letTheStepEnd();
    deliver(ENTITIES, listOf({"a"}));
    EXPECT_TRUE(isUnderWay(run));
    EXPECT_THAT(subscribed(), ElementsAre(ENTITIES));
    retainEntity("b");
    deliver(ENTITIES, listOf({"b"}));
    EXPECT_TRUE(run.get());
    EXPECT_THAT(entities(), ElementsAre(textsOf("b")));
}

TEST_F(AWaitForChange, ComparesWithTheListOfARunThatRanOutOfTime) {
    retainLinks({"a"});
    ASSERT_FALSE(discoverer->discoverSync(1, true));
    EXPECT_FALSE(isChange({"a"}));
}

TEST_F(AWaitForChange, DoesNotLastIntoTheNextRun) {
    discover({"a"});
    EXPECT_FALSE(isChange({"a"}));
    EXPECT_TRUE(discoverer->discoverSync(LONG_ENOUGH, false));
}

} // namespace
