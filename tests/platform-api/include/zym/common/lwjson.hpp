#pragma once

#include <conv/unix_time.hpp>

#include <string>
#include <vector>

namespace zym::common::lwjson {

class Serializer {
public:
    explicit Serializer(std::string& json);
    explicit Serializer(std::string const& finishedText);

    void appendKey(char const* key);
    void appendValue(char const* rawText);
    void addValue(std::string const& text);
    void addValue(double number);
    void addValue(conv::UnixTime const& time);
    void addValue(Serializer const& object);
    void addValue(std::vector<Serializer> const& objects);
    std::string& mutableJson();
    void finalize();
};

class Deserializer {
public:
    explicit Deserializer(std::string const& text);

    char const* getMember(char const* key) const;
    static void extractValue(char const* text, std::string& out, char const* extra);
    static void extractValue(char const* text, unsigned char& out, char const* extra);
    static void extractValue(char const* text, unsigned int& out, char const* extra);
    static void extractValue(char const* text, double& out, char const* extra);
    static void extractValue(char const* text, conv::UnixTime& out, char const* extra);
};

} // namespace zym::common::lwjson
