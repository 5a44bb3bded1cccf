#include "mqtt/test/test_client.hpp"

#include <mqtt/test_checks.hpp>

#include <gtest/gtest.h>

#include <chrono>
#include <future>

namespace {

using zym::common::Uuid;
using Strings = std::vector<std::string>;

/// A collection whose value the test sets itself.
class ACollectionToCheck : public testing::Test {
protected:
    void setLinks(Strings const& ids) {
        mqtt::MqttDataBase::Lock const lock(collection.mutex());
        collection.value.clear();
        for (auto const& id : ids) {
            collection.value.push_back({id});
        }
    }

    bool has(std::string const& link) { return isLinkPublishedInCollection(link, collection); }
    bool hasAll(std::vector<Uuid> const& uuids) {
        return checkCollectionPublished(uuids, collection);
    }

    std::unique_ptr<mqtt::MqttClient> client =
        mqtt::test::testClient("host", 1883, {/*persistent=*/false, /*connect=*/false});
    mqtt::MqttDataCollection<mqtt::Link> collection{*client, "links"};
};

TEST_F(ACollectionToCheck, HasALinkOfExactlyThisText) {
    EXPECT_FALSE(has("")) << "while it is empty";
    std::string const withZeroByte("z\0b", 3);
    setLinks({"other", "a/b", withZeroByte});
    for (auto const& text : Strings{"a/b", "other", withZeroByte}) {
        EXPECT_TRUE(has(text)) << text;
    }
    for (auto const& text :
         Strings{"", "a", "a/b/c", "A/b", "/a/b", "a/b ", "oth", "z", std::string("z\0c", 3)}) {
        EXPECT_FALSE(has(text)) << text;
    }
}

TEST_F(ACollectionToCheck, HasALinkForEachOfSoManyIdentifiers) {
    Uuid const one{1};
    Uuid const two{2};
    auto const oneText = one.base64URL();
    auto const twoText = two.base64URL();
    struct Case {
        Strings links;
        std::vector<Uuid> uuids;
        bool expected;
    };
    std::vector<Case> const cases{
        {{}, {}, true},
        {{"x"}, {}, false},
        {{}, {one}, false},
        {{"plant/" + twoText + "/x", oneText}, {one, two}, true},
        {{"plant/" + twoText + "/x", oneText}, {two, one}, true},
        {{oneText, twoText}, {one}, false},
        {{oneText, twoText}, {one, two, two}, false},
        {{oneText, twoText, "more"}, {one, two}, false},
        {{oneText, "other"}, {one, two}, false},
        {{oneText, twoText.substr(0, twoText.size() - 1)}, {one, two}, false},
        {{oneText, two.to_string()}, {one, two}, false},
        // Each identifier is looked for among all links.
        {{oneText + "/" + twoText, "other"}, {one, two}, true},
        {{oneText, "other"}, {one, one}, true}};
    for (std::size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(i);
        setLinks(cases[i].links);
        EXPECT_EQ(hasAll(cases[i].uuids), cases[i].expected);
    }
}

TEST_F(ACollectionToCheck, IsNotReadWhileItIsBeingWritten) {
    mqtt::MqttDataBase::Lock lock(collection.mutex());
    auto link = std::async(std::launch::async, [&] { return has("whole"); });
    auto all = std::async(std::launch::async, [&] { return hasAll({Uuid(1)}); });
    constexpr std::chrono::milliseconds observationTime{300};
    EXPECT_EQ(link.wait_for(observationTime), std::future_status::timeout);
    EXPECT_EQ(all.wait_for(observationTime), std::future_status::timeout);
    collection.value = {{"whole"}};
    lock.unlock();
    EXPECT_TRUE(link.get());
    EXPECT_FALSE(all.get());
}

} // namespace
