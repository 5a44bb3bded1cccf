#pragma once

#include <ostream>
#include <string>
#include <vector>

/// Something that is no message, whoever reads it.
struct Malformed {
    std::string name; ///< fit for a test name
    std::string payload;
};

inline std::ostream& operator<<(std::ostream& out, Malformed const& malformed) {
    return out << malformed.name;
}

inline std::string repeated(std::string const& text, int times) {
    std::string result;
    for (int i = 0; i < times; ++i) {
        result += text;
    }
    return result;
}

/// Neither a request nor a reply, whatever the payload: what is wrong is the envelope, or all.
inline std::vector<Malformed> malformedMessages() {
    std::string const good = R"({"$reqId": 7, "$err": 1, "number": 5, "text": "x"})";
    std::string garbage(1 << 20, '\0');
    unsigned int state = 1;
    for (char& byte : garbage) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<char>(state >> 24U);
    }
    return {
        {"ABlank", " "},
        {"ANumber", "42"},
        {"AText", R"("$reqId")"},
        {"Null", "null"},
        {"AnEmptyArray", "[]"},
        {"AnArrayOfAMessage", "[" + good + "]"},
        {"AnEmptyObject", "{}"},
        {"NoIdentifier", R"({"$err": 1, "number": 5, "text": "x"})"},
        {"CutShort", good.substr(0, good.size() - 1)},
        {"CutInAKey", good.substr(0, 5)},
        {"MoreBehindTheEnd", good + "x"},
        {"TwoMessages", good + good},
        {"AByteOrderMark", "\xef\xbb\xbf" + good},
        {"AZeroByteBehindTheEnd", good + std::string(1, '\0')},
        {"AZeroByteInAText",
         R"({"$reqId": 7, "$err": 1, "number": 5, "text": ")" + std::string(1, '\0') + "\"}"},
        {"ALineFeedInAText", "{\"$reqId\": 7, \"$err\": 1, \"number\": 5, \"text\": \"\n\"}"},
        {"NestedArrays", repeated("[", 100000)},
        {"NestedObjects", repeated(R"({"a":)", 100000) + "1" + repeated("}", 100000)},
        {"NestedBelowAGoodEnvelope", R"({"$reqId": 7, "$err": 1, "number": 5, "text": "x", "a": )"
                                         + repeated("[", 100000) + repeated("]", 100000) + "}"},
        {"ATextAsIdentifier", R"({"$reqId": "7", "$err": 1, "number": 5, "text": "x"})"},
        {"TrueAsIdentifier", R"({"$reqId": true, "$err": 1, "number": 5, "text": "x"})"},
        {"NullAsIdentifier", R"({"$reqId": null, "$err": 1, "number": 5, "text": "x"})"},
        {"AnObjectAsIdentifier", R"({"$reqId": {}, "$err": 1, "number": 5, "text": "x"})"},
        {"AFractionAsIdentifier", R"({"$reqId": 7.5, "$err": 1, "number": 5, "text": "x"})"},
        {"AnExponentInTheIdentifier", R"({"$reqId": 7e0, "$err": 1, "number": 5, "text": "x"})"},
        {"ANegativeIdentifier", R"({"$reqId": -7, "$err": 1, "number": 5, "text": "x"})"},
        {"AnIdentifierOf33Bits", R"({"$reqId": 4294967296, "$err": 1, "number": 5, "text": "x"})"},
        {"AnEndlessIdentifier",
         R"({"$reqId": )" + repeated("9", 100000) + R"(, "$err": 1, "number": 5, "text": "x"})"},
        {"AMebibyteOfGarbage", garbage},
    };
}
