#include <mqtt/request_reply.hpp>

#include <gtest/gtest.h>

#include <ios>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

std::string printed(int code) {
    std::ostringstream out;
    out << std::hex << static_cast<mqtt::RequestReply::ErrorCode>(code);
    return out.str();
}

TEST(AnErrorCode, PrintsItsName) {
    std::vector<std::pair<int, std::string>> const names{
        {0, "NONE"},        {1, "SUCCESS"}, {2, "NO_SERVER"}, {3, "TIMEOUT"},
        {4, "NO_LISTENER"}, {5, "PENDING"}, {6, "BUSY"},      {7, "CANCELLED"}};
    for (auto const& [code, name] : names) {
        EXPECT_EQ(printed(code), name) << code;
    }
}

TEST(AnErrorCode, OfAnApplicationPrintsHowFarItIsFromTheFirstOne) {
    EXPECT_EQ(printed(16), "APPLICATION");
    EXPECT_EQ(printed(17), "APPLICATION + 1");
    EXPECT_EQ(printed(255), "APPLICATION + 239");
}

TEST(AnErrorCode, WithoutANamePrintsAsUnknown) {
    for (int const code : {8, 15}) {
        EXPECT_EQ(printed(code), "UNKNOWN") << code;
    }
}

} // namespace
