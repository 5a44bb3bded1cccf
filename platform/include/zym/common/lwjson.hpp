#pragma once

#include <zym/common/lwjson/deserializer.hpp>
#include <zym/common/lwjson/serializer.hpp>
