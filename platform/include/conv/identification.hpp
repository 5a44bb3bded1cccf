#pragma once

#include <zym/common/export.hpp>

#include <string>

namespace conv {

/// The data with which an entity describes itself. Every text may be empty.
struct ZYM_COMMON_EXPORT Identification {
    std::string uuid;
    std::string manufacturer;
    std::string model;
    std::string serial;
    std::string physicalName;
    std::string name;
    std::string interface;
    std::string version;
    std::string location;
    std::string contact;
};

} // namespace conv
