#pragma once

#include <string>

namespace zym::common {

class Uuid {
public:
    static Uuid const NIL;
    static Uuid const UNKNOWN;

    Uuid();
    explicit Uuid(std::string const& text);
    explicit Uuid(unsigned long long number);

    bool isNil() const;
    std::string to_string() const;
    std::string base64URL() const;
};

} // namespace zym::common
