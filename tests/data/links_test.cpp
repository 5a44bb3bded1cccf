#include "data/documents.hpp"

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

std::string collection(std::string const& count, std::string const& elements) {
    return R"({"members@count": )" + count + R"(, "members": [)" + elements + "]}";
}

std::vector<std::string> ids(Links const& links) {
    std::vector<std::string> result;
    for (auto const& link : links) {
        result.push_back(link.id);
    }
    return result;
}

// One link

TEST(ALink, IsReadFromAnyDocumentWithItsMember) {
    Link link{"old"};
    read(link, R"({"more": 1, "@id": "a\/b", "@id": "c"})");
    EXPECT_EQ(link.id, "a/b");
}

TEST(ALink, IsUnchangedByAnythingElse) {
    Link link{"old"};
    read(link, "", true);
    read(link, R"({"@id": "new"})", true);
    for (char const* const payload :
         {"{}", R"({"@id": 1})", R"({"@id": null})", R"({"@id": "\ud800"})", R"({"id": "x"})"}) {
        EXPECT_THROW(read(link, payload), std::logic_error) << payload;
    }
    for (auto const& payload : MALFORMED) {
        EXPECT_THROW(read(link, payload), std::exception);
    }
    EXPECT_EQ(link.id, "old");
}

// A collection

TEST(ACollectionOfLinks, ReadsWhatItOrTheVectorEndpointWrote) {
    Links links;
    for (int i = 0; i < 300; ++i) {
        links.push_back({"a/" + std::to_string(i) + "\"\\\n\t {}[],:\xff"});
    }
    links.push_back({""});
    std::string payload;
    Collection::serialize("a", payload, links);
    EXPECT_EQ(payload, written(links));
    Links result{{"old"}};
    Collection::deserialize("a", payload, false, result);
    EXPECT_EQ(ids(result), ids(links));
    read(result, payload);
    EXPECT_EQ(ids(result), ids(links));
}

TEST(ACollectionOfLinks, HasAsManyLinksAsThereAreWhateverTheCountIs) {
    for (char const* const count : {"0", "1", "2", "3", "4294967295"}) {
        Links links{{"old"}};
        read(links, collection(count, R"({"@id": "a"}, {"@id": "b"})"));
        EXPECT_THAT(ids(links), ElementsAre("a", "b")) << count;
        EXPECT_LT(links.capacity(), 100U) << count;
        read(links, collection(count, ""));
        EXPECT_THAT(links, IsEmpty());
    }
}

TEST(ACollectionOfLinks, IsReadFromLinksOfAnyLayout) {
    Links links(20, Link{"old"});
    read(links, collection("0", R"({"@id": "a"},{"@id":"b"},{"@id": "c" },
        { "@id": "d"}, {"@id": "e", "@id": "x"}, {"@id": "f","x": 1}, {"@id": "g\""},
        {"@id": "h\\"}, {"@id": ""}, {"\u0040id": "j"}, {"x": "}", "@id": "k"})"));
    EXPECT_THAT(ids(links), ElementsAre("a", "b", "c", "d", "e", "f", "g\"", "h\\", "", "j", "k"));
}

TEST(ACollectionOfLinks, EndsWithAnEmptyLinkInThePlaceOfWhatIsNone) {
    for (char const* const bad :
         {"1", "{}", "[]", "null", R"("a")", R"({"@id": 1})", R"({"@id": 1, "x": "y"})",
          R"({"@id": "\ud800"})", R"({"@id": "\udfff"})", R"({"@ix": "a"})", R"("{\"@id\": \"")"}) {
        Links links(5, Link{"old"});
        EXPECT_THROW(read(links, collection("3", std::string(R"({"@id": "a"}, )") + bad
                                                     + R"(, {"@id": "b"})")),
                     std::exception)
            << bad;
        EXPECT_THAT(ids(links), ElementsAre("a", "")) << bad;
    }
}

TEST(ACollectionOfLinks, IsUnchangedByADocumentWithoutACount) {
    Links links{{"old"}};
    read(links, "", true);
    EXPECT_THROW(read(links, R"({"members": [{"@id": "a"}]})"), std::out_of_range);
    for (auto const& payload : MALFORMED) {
        EXPECT_THROW(read(links, payload), std::exception);
    }
    for (char const* const count : {"-1", "4294967296", "1e3", "1.0", "\"1\"", "null", "[]"}) {
        EXPECT_THROW(read(links, collection(count, R"({"@id": "a"})")), std::logic_error) << count;
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

// Printing

/// Counts how often it is flushed.
class FlushCounter : public std::stringbuf {
public:
    int flushes = 0;

protected:
    int sync() override {
        ++flushes;
        return 0;
    }
};

TEST(PrintedLinks, StandOnALineOfTheirOwnEach) {
    FlushCounter text;
    std::ostream out(&text);
    EXPECT_EQ(&(out << Links()), &out);
    EXPECT_EQ(text.flushes, 0);
    EXPECT_EQ(&(out << Links{{"a/b"}, {""}, {"c"}}), &out);
    EXPECT_EQ(text.str(), "a/b\n\nc\n");
    EXPECT_EQ(text.flushes, 3);
}

} // namespace
