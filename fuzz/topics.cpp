// Applies any sequence of operations to topics, and compares them with a simple model.

#include "fuzz/target.hpp"

#include <mqtt/topic.hpp>

#include <algorithm>
#include <array>
#include <vector>

namespace {

using fuzz::require;
using mqtt::Topic;

std::vector<std::string> split(std::string const& text) {
    std::vector<std::string> result(1);
    for (char const c : text) {
        if (c == '/') {
            result.emplace_back();
        } else {
            result.back() += c;
        }
    }
    return result;
}

/// Whether the text is the segments with separators between them.
bool isJoined(std::string const& text, std::vector<std::string> const& segments) {
    return segments.empty() ? text.empty() : split(text) == segments;
}

struct Model {
    Model() = default;
    explicit Model(std::string path) {
        bool const isEmpty = path.empty();
        if (!isEmpty && path.back() == '/') {
            path.pop_back();
        }
        text = path.substr(path.find('/') == 0 ? 1 : 0);
        segments = isEmpty ? segments : split(text);
    }

    void append(Model const& tail) {
        if (tail.segments.empty()) {
            return;
        }
        // The text may lose a part that the segments keep: see `Topic::operator+=`.
        bool const isCut = tail.text.find('\0') != std::string::npos;
        isJoined = isJoined && tail.isJoined && !isCut && (segments.empty() || !text.empty());
        text += (text.empty() ? "" : "/") + std::string(tail.text.c_str());
        segments.insert(segments.end(), tail.segments.begin(), tail.segments.end());
    }

    std::string text;
    std::vector<std::string> segments;
    bool isJoined = true; ///< the text is the segments with separators between them
};

/// A topic and its model.
class ModelledTopic {
public:
    void assign(std::string const& path) {
        topic_ = Topic(path);
        model_ = Model(path);
        require(Topic(path.c_str()) == Topic(std::string(path.c_str())),
                "both constructors parse alike");
    }

    void append(std::string const& path) {
        auto const sum = topic_ + path;
        topic_ += path;
        model_.append(Model(path));
        require(sum == topic_ && sum.size() == topic_.size(), "+ and += have the same result");
    }

    void append(ModelledTopic const& tail) {
        model_.append(Model(tail.model_));
        topic_ += tail.topic_; // may be itself
    }

    void resize(unsigned n) {
        auto const before = topic_.text();
        topic_.resize(n);
        auto const& text = topic_.text();
        require(before.compare(0, text.size(), text) == 0, "resize keeps a beginning");
        model_.segments.resize(std::min<std::size_t>(n, model_.segments.size()));
        require(!model_.isJoined || isJoined(text, model_.segments), "resize cuts at a separator");
        model_.text = text;
    }

    void clear() {
        topic_.clear();
        model_.text.clear();
        model_.isJoined = model_.segments.empty();
    }

    void check() const {
        require(topic_.text() == model_.text, "the text");
        require(topic_.size() == model_.segments.size(), "the number of segments");
        for (unsigned i = 0; i < topic_.size(); ++i) {
            std::string segment;
            bool const exists = fuzz::succeeds([&] { segment = topic_[i]; });
            require(!model_.isJoined || (exists && segment == model_.segments[i]), "a segment");
            require(topic_.text().find(segment) != std::string::npos, "a part of the text");
        }
    }

    void compare(ModelledTopic const& other) const {
        auto const order = topic_.text().compare(other.topic_.text());
        require((topic_ == other.topic_) == (order == 0), "equal texts");
        require((topic_ < other.topic_) == (order < 0), "ordered as the texts");
        require(!topic_.matches(other.topic_) || !other.topic_.text().empty(),
                "nothing matches the empty topic");
    }

private:
    Topic topic_;
    Model model_;
};

} // namespace

void fuzz::run(std::string_view bytes) {
    constexpr std::size_t MAX_LENGTH = 1U << 16U; // a topic appended to itself doubles
    std::array<ModelledTopic, 3> topics;
    std::size_t length = 0; // at most
    for (fuzz::Lines lines(bytes); !lines.none() && length < MAX_LENGTH;) {
        std::string const line = lines.next();
        if (line.size() < 2) {
            continue;
        }
        auto& topic = topics[static_cast<unsigned char>(line[1]) % topics.size()];
        auto const& other = topics[static_cast<unsigned char>(line.back()) % topics.size()];
        auto const path = line.substr(2);
        switch (line[0]) {
        case '=':
            topic.assign(path);
            break;
        case '+':
            topic.append(path);
            break;
        case '&':
            topic.append(other);
            length = length * 2 + bytes.size();
            break;
        case '<':
            topic.resize(static_cast<unsigned char>(line.back()) % 16U);
            break;
        case '0':
            topic.clear();
            break;
        default:
            topic.compare(other);
        }
        topic.check();
    }
}
