// The private reader of arrays, with texts that our JSON reader refuses before: another platform
// library's may not. links_test.cpp has the valid ones.

#include "data/array_elements.hpp"

#include <gmock/gmock.h>

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

using mqtt::ArrayElements;
using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> elementsOf(std::string_view text) {
    // An exact copy: AddressSanitizer sees a read beyond its end.
    std::vector<char> const bytes(text.begin(), text.end());
    ArrayElements elements({bytes.data(), bytes.size()});
    std::vector<std::string> result;
    std::string_view element;
    while (elements.next(element)) {
        result.emplace_back(element);
    }
    EXPECT_FALSE(elements.next(element));
    return result;
}

TEST(TheElementsOfAnArray, EndWithItAndAreNotCheckedThemselves) {
    EXPECT_THAT(elementsOf(R"([1, 2], "more": ["x)"), ElementsAre("1", "2"));
    EXPECT_THAT(elementsOf("[]]"), IsEmpty());
    EXPECT_THAT(elementsOf("[1,,x y,]"), ElementsAre("1", "", "x y", ""));
    std::string const deep = std::string(100000, '[') + std::string(100000, ']');
    EXPECT_THAT(elementsOf('[' + deep + ']'), ElementsAre(deep));
}

TEST(TheElementsOfAnArray, AreRefusedWithoutItsBracketsAndWhereverItIsCutOff) {
    for (char const* const text : {" ", "{}", "1", "\"[]\"", "null", "]", "x[]", "[1}", "[1, 2}"}) {
        EXPECT_THROW(elementsOf(text), std::runtime_error) << text;
    }
    std::string const text = R"([ {"a": ["\\\"]", 1 ]} , "\"" , 2 ])";
    EXPECT_THAT(elementsOf(text), ElementsAre(R"({"a": ["\\\"]", 1 ]})", R"("\"")", "2"));
    for (std::size_t length = 0; length < text.size(); ++length) {
        EXPECT_THROW(elementsOf({text.data(), length}), std::runtime_error) << length;
    }
}

} // namespace
