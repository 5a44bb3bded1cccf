#include "client/client_on_a_script.hpp"
#include "testsupport/checks_frame.hpp"

#include <chrono>
#include <future>

namespace {

using mqtt::isLinkPublishedInCollection;
using zym::common::Uuid;
using Uuids = std::vector<Uuid>;

class ACollectionToCheck : public AClientOnAScript {
protected:
    ACollectionToCheck() {
        connect();
        EXPECT_EQ(collection.subscribe(nullptr, 0), mqtt::MqttClient::Error::SUCCESS);
    }

    void publish(std::vector<std::string> const& ids) {
        script_->deliver("links", linksText(ids));
        letTheStepEnd();
    }

    bool has(std::string const& link) { return isLinkPublishedInCollection(link, collection); }
    bool hasAll(Uuids const& uuids) { return checkCollectionPublished(uuids, collection); }

    mqtt::MqttDataCollection<mqtt::Link> collection{*client_, "links"};
    Uuid const one{1};
    Uuid const two{2};
    std::string const oneText = one.base64URL();
    std::string const twoText = two.base64URL();
};

TEST_F(ACollectionToCheck, HasNoLinkWhenItIsEmpty) {
    EXPECT_FALSE(has(""));
    EXPECT_FALSE(has("a/b"));
    publish({});
    EXPECT_FALSE(has(""));
}

TEST_F(ACollectionToCheck, HasALinkOfTheVeryText) {
    publish({"other", "a/b"});
    EXPECT_TRUE(has("a/b"));
    EXPECT_TRUE(has("other"));
    for (auto const* const text : {"", "a", "a/b/c", "a/", "A/b", "/a/b", "b", "a/b ", "oth"}) {
        EXPECT_FALSE(has(text)) << text;
    }
    publish({"a/b/c"});
    EXPECT_FALSE(has("a/b")) << "no more";
    EXPECT_TRUE(has("a/b/c"));
}

TEST_F(ACollectionToCheck, ComparesZeroBytesToo) {
    publish({"a\\u0000b", ""});
    EXPECT_TRUE(has(std::string("a\0b", 3)));
    EXPECT_TRUE(has(""));
    EXPECT_FALSE(has("a"));
    EXPECT_FALSE(has(std::string("a\0c", 3)));
}

TEST_F(ACollectionToCheck, HasNobodyWhenItIsEmptyAndNobodyIsExpected) {
    EXPECT_TRUE(hasAll({}));
    publish({"x"});
    EXPECT_FALSE(hasAll({}));
    publish({});
    EXPECT_TRUE(hasAll({}));
    EXPECT_FALSE(hasAll({one}));
}

TEST_F(ACollectionToCheck, HasAllInWhateverOrderAndWhereverInTheText) {
    publish({"plant/" + twoText + "/x", oneText});
    EXPECT_TRUE(hasAll({one, two}));
    EXPECT_TRUE(hasAll({two, one}));
}

TEST_F(ACollectionToCheck, HasNotAllWhenTheNumbersDiffer) {
    publish({oneText, twoText});
    EXPECT_FALSE(hasAll({one}));
    EXPECT_FALSE(hasAll({one, two, two}));
    publish({oneText, twoText, "more"});
    EXPECT_FALSE(hasAll({one, two}));
}

TEST_F(ACollectionToCheck, HasNotAllWhenOneIsMissing) {
    publish({oneText, "other"});
    EXPECT_FALSE(hasAll({one, two}));
    EXPECT_FALSE(hasAll({two, one}));
    publish({oneText, twoText.substr(0, twoText.size() - 1)});
    EXPECT_FALSE(hasAll({one, two}));
    publish({oneText, two.to_string()});
    EXPECT_FALSE(hasAll({one, two}));
}

TEST_F(ACollectionToCheck, LooksForEveryOneAnew) {
    publish({oneText + "/" + twoText, "other"});
    EXPECT_TRUE(hasAll({one, two}));
    EXPECT_TRUE(hasAll({one, one}));
}

TEST_F(ACollectionToCheck, IsNotReadWhileSomebodyWritesIt) {
    mqtt::MqttDataBase::Lock lock(collection.mutex());
    collection.value = {{"half"}};
    auto link = std::async(std::launch::async, [&] { return has("whole"); });
    auto all = std::async(std::launch::async, [&] { return hasAll({one}); });
    constexpr std::chrono::milliseconds aWhile{300};
    EXPECT_EQ(link.wait_for(aWhile), std::future_status::timeout);
    EXPECT_EQ(all.wait_for(aWhile), std::future_status::timeout);
    collection.value = {{"whole"}};
    lock.unlock();
    EXPECT_TRUE(link.get());
    EXPECT_FALSE(all.get());
}

} // namespace
