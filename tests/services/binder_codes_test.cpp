// What the code of a reply means for a binding. The documents of bindings and of the time
// are read in every build from the seeds of the fuzz targets.

#include <mqtt/binder_proxy.hpp>

#include <gtest/gtest.h>

namespace {

int meaning(int code) {
    return static_cast<int>(mqtt::BinderMqttProxy::requestReplyToBinderError(
        static_cast<mqtt::RequestReply::ErrorCode>(code)));
}

TEST(ACodeOfRequestReply, MeansWhatTheTableSaysBelowSixteen) {
    int const table[16] = {1, 0, 4, 3, 4, 1, 2, 9, 1, 1, 1, 1, 1, 1, 1, 1};
    for (int code = 0; code < 16; ++code) {
        EXPECT_EQ(meaning(code), table[code]) << "code " << code;
    }
}

TEST(ACodeOfRequestReply, CarriesTheServersOwnFromSixteenOn) {
    for (int code = 16; code < 256; ++code) {
        EXPECT_EQ(meaning(code), code - 16) << "code " << code;
    }
}

} // namespace
