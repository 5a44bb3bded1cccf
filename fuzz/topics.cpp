// Makes, extends and cuts a topic, and compares it with a list of segments.

#include "fuzz/target.hpp"

#include <mqtt/topic.hpp>

#include <algorithm>
#include <vector>

namespace {

using fuzz::require;
using mqtt::Topic;
using Segments = std::vector<std::string>;

/// Without one "/" at either end.
Segments segmentsOf(std::string path) {
    if (path.empty()) {
        return {};
    }
    if (path.back() == '/') {
        path.pop_back();
    }
    Segments result(1);
    for (char const c : path.substr(path.find('/') == 0 ? 1 : 0)) {
        if (c == '/') {
            result.emplace_back();
        } else {
            result.back() += c;
        }
    }
    return result;
}

std::string joined(Segments const& segments) {
    std::string text;
    for (auto const& segment : segments) {
        text += (&segment == &segments.front() ? "" : "/") + segment;
    }
    return text;
}

void append(Topic& topic, Segments& segments, std::string const& path) {
    if (topic.text().empty() && topic.size() > 0) {
        return; // its text keeps no separator then: see `Topic::operator+=`
    }
    auto const sum = topic + path;
    topic += path;
    require(sum == topic && sum.size() == topic.size(), "+ and += have the same result");
    auto const tail = segmentsOf(path);
    segments.insert(segments.end(), tail.begin(), tail.end());
}

void check(Topic const& topic, Segments const& segments) {
    require(topic.text() == joined(segments), "the text");
    require(topic.size() == segments.size(), "the number of segments");
    for (unsigned i = 0; i < topic.size(); ++i) {
        require(topic[i] == segments[i], "a segment");
    }
}

} // namespace

void fuzz::run(std::string_view bytes) {
    Topic topic;
    Segments segments;
    for (fuzz::Lines lines(bytes); !lines.none();) {
        std::string const line = lines.next();
        // Cut at a zero byte: what an appended path loses there is not modelled.
        std::string const path(line.empty() ? "" : line.c_str() + 1);
        if (line[0] == '+') {
            append(topic, segments, path);
        } else if (line[0] == '<') { // to as many segments as the path has bytes
            topic.resize(static_cast<unsigned>(path.size()));
            segments.resize(std::min(path.size(), segments.size()));
        } else {
            topic = Topic(path);
            segments = segmentsOf(path);
            require(topic == Topic(path.c_str()), "both constructors parse alike");
        }
        check(topic, segments);
    }
}
