#pragma once

#include <zym/common/lwjson.hpp>

#include <string>

namespace mqtt {

/// Appends a member that is a bare number: the writer itself knows texts, times and doubles only.
inline void appendNumber(zym::common::lwjson::Serializer& out, char const* key,
                         unsigned int number) {
    out.appendKey(key);
    out.appendValue(std::to_string(number).c_str());
}

} // namespace mqtt
