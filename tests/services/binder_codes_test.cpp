// What the code of a reply means for a binding. The documents of bindings and of the time
// are read in every build from the seeds of the fuzz targets.

#include <mqtt/binder_proxy.hpp>

#include <gtest/gtest.h>

namespace {

TEST(ACodeOfRequestReply, MeansWhatTheTableSaysAndIsTheServersOwnFromSixteenOn) {
    int const table[16] = {1, 0, 4, 3, 4, 1, 2, 9, 1, 1, 1, 1, 1, 1, 1, 1};
    for (int code = 0; code < 256; ++code) {
        auto const meaning = mqtt::BinderMqttProxy::requestReplyToBinderError(
            static_cast<mqtt::RequestReply::ErrorCode>(code));
        EXPECT_EQ(static_cast<int>(meaning), code < 16 ? table[code] : code - 16) << code;
    }
}

} // namespace
