#include <mqtt/link.hpp>

#include <gmock/gmock.h>

#include <sstream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using mqtt::Link;
using mqtt::MqttData;
using testing::ElementsAre;
using testing::IsEmpty;
using Collection = mqtt::MqttDataCollection<Link>;
using Links = std::vector<Link>;

static_assert(std::is_base_of_v<MqttData<Links>, Collection>);
static_assert(sizeof(Collection) == sizeof(MqttData<Links>), "a collection adds no field");

std::string written(Links const& links) {
    std::string payload = "what stood there before";
    Collection::serialize("a", payload, links);
    return payload;
}

void read(Links& links, std::string const& payload) {
    Collection::deserialize("a", payload, false, links);
}

std::vector<std::string> ids(Links const& links) {
    std::vector<std::string> result;
    for (auto const& link : links) {
        result.push_back(link.id);
    }
    return result;
}

// One link

TEST(ALink, IsWrittenAsAnObjectOfOneMember) {
    std::string payload = "what stood there before";
    MqttData<Link>::serialize("a", payload, Link{"a/b"});
    EXPECT_EQ(payload, "{\n  \"@id\": \"a/b\"\n}");
}

TEST(ALink, IsReadFromAnyDocumentWithItsMember) {
    Link link{"old"};
    MqttData<Link>::deserialize("a", R"({"more": 1, "@id": "a\/b", "@id": "c"})", false, link);
    EXPECT_EQ(link.id, "a/b");
}

TEST(ALink, IsUnchangedByNothing) {
    Link link{"old"};
    MqttData<Link>::deserialize("a", "", true, link);
    MqttData<Link>::deserialize("a", R"({"@id": "new"})", true, link);
    EXPECT_EQ(link.id, "old");
}

TEST(ALink, IsUnchangedByADocumentWithoutItsMember) {
    Link link{"old"};
    for (char const* const payload :
         {"{}", R"({"@id": 1})", R"({"@id": null})", R"({"@id": "\ud800"})", R"({"id": "x"})"}) {
        EXPECT_THROW(MqttData<Link>::deserialize("a", payload, false, link), std::logic_error)
            << payload;
    }
    EXPECT_EQ(link.id, "old");
}

TEST(ALink, IsNotReadFromWhatIsNoObject) {
    Link link{"old"};
    for (char const* const payload : {"[]", "\"@id\"", "1", "{", "x"}) {
        try {
            MqttData<Link>::deserialize("a", payload, false, link);
            ADD_FAILURE() << "nothing was raised for " << payload;
        } catch (std::runtime_error const& error) {
            EXPECT_STREQ(error.what(), "Cannot get member from a scalar or array");
        }
    }
    EXPECT_EQ(link.id, "old");
}

// Writing a collection

TEST(ACollectionOfLinks, IsWrittenWithItsCountAndOneLinkPerLine) {
    EXPECT_EQ(written({{"a/b"}, {"c  \n}],\"\\\x01\xff"}}),
              "{\n"
              "  \"members@count\": 2,\n"
              "  \"members\":\n"
              "  [\n"
              "    {\"@id\": \"a/b\"},\n"
              "    {\"@id\": \"c  \\n}],\\\"\\\\\\u0001\xff\"}\n"
              "  ]\n"
              "}");
}

TEST(ACollectionOfLinks, WithoutLinksIsWrittenAsAnEmptyArray) {
    EXPECT_EQ(written({}), "{\n  \"members@count\": 0,\n  \"members\":\n  [\n  ]\n}");
}

TEST(ACollectionOfLinks, IsWrittenInTheSameWayByTheVectorEndpoint) {
    Links const links{{"a/b"}, {"c"}};
    std::string payload;
    MqttData<Links>::serialize("a", payload, links);
    EXPECT_EQ(payload, written(links));
    Links result;
    MqttData<Links>::deserialize("a", payload, false, result);
    EXPECT_THAT(ids(result), ElementsAre("a/b", "c"));
}

TEST(ACollectionOfLinks, ReadsWhatItWrote) {
    Links links;
    for (int i = 0; i < 300; ++i) {
        links.push_back({"a/" + std::to_string(i) + "\"\\\n\t {}[],:\xff"});
    }
    links.push_back({""});
    Links result{{"old"}};
    read(result, written(links));
    EXPECT_EQ(ids(result), ids(links));
}

// Reading a collection

TEST(ACollectionOfLinks, HasAsManyLinksAsThereAreWhateverTheCountSays) {
    for (char const* const count : {"0", "1", "2", "3", "4294967295"}) {
        Links links{{"old"}};
        read(links, std::string(R"({"members@count": )") + count
                        + R"(, "members": [{"@id": "a"}, {"@id": "b"}]})");
        EXPECT_THAT(ids(links), ElementsAre("a", "b")) << count;
    }
}

TEST(ACollectionOfLinks, IsReadFromLinksOfAnyLayout) {
    Links links(20, Link{"old"});
    read(links, R"({"members@count": 0, "members": [{"@id": "a"},{"@id":"b"},{"@id": "c" },
        { "@id": "d"}, {"@id": "e", "@id": "x"}, {"@id": "f","x": 1}, {"@id": "g\""},
        {"@id": "h\\"}, {"@id": ""}, {"\u0040id": "j"}, {"x": "}", "@id": "k"}]})");
    EXPECT_THAT(ids(links), ElementsAre("a", "b", "c", "d", "e", "f", "g\"", "h\\", "", "j", "k"));
}

TEST(ACollectionOfLinks, EndsWithAnEmptyLinkInThePlaceOfWhatIsNone) {
    for (char const* const odd : {"1", "{}", R"({"@id": 1})", R"({"@id": 1, "x": "y"})",
                                  R"({"@id": "\ud800"})", R"({"@ix": "a"})", R"("{\"@id\": \"")"}) {
        Links links(5, Link{"old"});
        std::string const payload =
            std::string(R"({"members@count": 3, "members": [{"@id": "a"}, )") + odd
            + R"(, {"@id": "b"}]})";
        EXPECT_ANY_THROW(read(links, payload)) << odd;
        EXPECT_THAT(ids(links), ElementsAre("a", "")) << odd;
    }
}

TEST(ACollectionOfLinks, MakesNoRoomForACountOfFourBillion) {
    Links links;
    read(links, R"({"members@count": 4294967295, "members": [{"@id": "a"}]})");
    EXPECT_LT(links.capacity(), 100U);
}

TEST(ACollectionOfLinks, IsReadEmptyFromAnEmptyArray) {
    Links links{{"old"}};
    read(links, R"({"members@count": 0, "members": []})");
    EXPECT_THAT(links, IsEmpty());
}

TEST(ACollectionOfLinks, IsUnchangedByNothing) {
    Links links{{"old"}};
    Collection::deserialize("a", "", true, links);
    MqttData<Links>::deserialize("a", "", true, links);
    EXPECT_THAT(ids(links), ElementsAre("old"));
}

TEST(ACollectionOfLinks, IsUnchangedByADocumentWithoutACount) {
    Links links{{"old"}};
    EXPECT_THROW(read(links, R"({"members": [{"@id": "a"}]})"), std::out_of_range);
    for (char const* const count : {"-1", "4294967296", "1e3", "1.0", "\"1\"", "null", "[]"}) {
        EXPECT_THROW(read(links, std::string(R"({"members@count": )") + count
                                     + R"(, "members": [{"@id": "a"}]})"),
                     std::logic_error)
            << count;
    }
    EXPECT_THAT(ids(links), ElementsAre("old"));
}

TEST(ACollectionOfLinks, IsEmptyAfterADocumentWithoutMembers) {
    for (char const* const members : {"", ", \"members\": {}", ", \"members\": 1",
                                      ", \"members\": null", ", \"members\": \"[]\""}) {
        Links links{{"old"}};
        EXPECT_THROW(read(links, std::string(R"({"members@count": 1)") + members + "}"),
                     std::exception)
            << members;
        EXPECT_THAT(links, IsEmpty()) << members;
    }
}

TEST(ACollectionOfLinks, EndsWithAnEmptyLinkWhereAMemberIsNone) {
    for (char const* const bad :
         {"{}", "1", "[]", "null", R"({"@id": 1})", R"({"@id": "\udfff"})", R"("a")"}) {
        Links links{{"old"}};
        EXPECT_THROW(read(links, std::string(R"({"members@count": 3, "members": [{"@id": "a"}, )")
                                     + bad + R"(, {"@id": "c"}]})"),
                     std::exception)
            << bad;
        EXPECT_THAT(ids(links), ElementsAre("a", "")) << bad;
    }
}

TEST(ACollectionOfLinks, IsNotReadFromWhatIsNoObject) {
    Links links{{"old"}};
    for (char const* const payload : {"[]", R"([{"@id": "a"}])", "1", "{", "x", ""}) {
        try {
            read(links, payload);
            ADD_FAILURE() << "nothing was raised for " << payload;
        } catch (std::runtime_error const& error) {
            EXPECT_STREQ(error.what(), "Cannot get member from a scalar or array");
        }
    }
    EXPECT_THAT(ids(links), ElementsAre("old"));
}

// Printing

/// Counts how often it is flushed.
class Sink : public std::stringbuf {
public:
    int flushes = 0;

protected:
    int sync() override {
        ++flushes;
        return 0;
    }
};

TEST(PrintedLinks, StandOnALineOfTheirOwnEach) {
    Sink sink;
    std::ostream out(&sink);
    EXPECT_EQ(&(out << Links{{"a/b"}, {""}, {"c"}}), &out);
    EXPECT_EQ(sink.str(), "a/b\n\nc\n");
    EXPECT_EQ(sink.flushes, 3);
}

TEST(PrintedLinks, AreNothingWhenThereAreNone) {
    Sink sink;
    std::ostream out(&sink);
    out << Links();
    EXPECT_EQ(sink.str(), "");
    EXPECT_EQ(sink.flushes, 0);
}

} // namespace
