#pragma once

#include <string>

namespace conv {

struct Identification {
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
