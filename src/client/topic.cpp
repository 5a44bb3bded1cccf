#include "mqtt/topic.hpp"

#include "mqtt/mosquittopp.hpp"

#include <algorithm>
#include <ostream>
#include <stdexcept>

namespace mqtt {

namespace {

// Not left to the standard library, whose text differs between compilers.
std::string checkedText(char const* path) {
    if (path == nullptr) {
        throw std::logic_error("basic_string::_M_construct null not valid");
    }
    return path;
}

} // namespace

Topic::Topic(std::string const& path) : text_(path) {
    parse();
}

Topic::Topic(char const* path) : text_(checkedText(path)) {
    parse();
}

void Topic::assign(char const* path) {
    text_ = path;
    parse();
}

void Topic::parse() {
    starts_.clear();
    if (text_.empty()) {
        return;
    }
    if (text_.back() == '/') {
        text_.pop_back();
    }
    if (!text_.empty() && text_.front() == '/') {
        text_.erase(0, 1);
    }
    auto const separators = std::count(text_.begin(), text_.end(), '/');
    starts_.reserve(static_cast<std::size_t>(separators) + 1);
    starts_.push_back(0);
    for (auto at = text_.find('/'); at != std::string::npos; at = text_.find('/', at + 1)) {
        starts_.push_back(static_cast<std::uint32_t>(at + 1));
    }
}

Topic& Topic::operator+=(Topic const& tail) {
    if (tail.starts_.empty()) {
        return *this;
    }
    if (&tail == this) {
        return *this += Topic(tail);
    }
    // The text decides, not the number of segments: "/" has one segment and no text, and gets no
    // separator.
    if (!text_.empty()) {
        text_ += '/';
    }
    auto const base = static_cast<std::uint32_t>(text_.size());
    text_ += tail.text_.c_str();
    for (auto const start : tail.starts_) {
        starts_.push_back(base + start);
    }
    return *this;
}

Topic& Topic::operator+=(std::string const& tail) {
    return *this += Topic(tail);
}

Topic& Topic::operator+=(char const* tail) {
    return *this += Topic(tail);
}

Topic& Topic::operator+=(zym::common::Uuid const& id) {
    return *this += id.base64URL();
}

std::string Topic::operator[](unsigned int i) const {
    std::size_t const start = starts_[i];
    if (i + 1 < starts_.size()) {
        return text_.substr(start, starts_[i + 1] - start - 1);
    }
    return text_.substr(start);
}

bool Topic::matches(Topic const& topic) const {
    bool result = false;
    mosqpp::topic_matches_sub(text_.c_str(), topic.text_.c_str(), &result);
    return result;
}

void Topic::resize(unsigned int n) {
    if (n == 0) {
        text_.clear();
        starts_.clear();
    }
    if (n >= starts_.size()) {
        return;
    }
    // Segment n may start at 0 (see operator+=), and may start after the end of the text (see
    // clear): the new end must not become negative, and the text must not become longer.
    std::size_t const end = starts_[n] == 0 ? 0 : starts_[n] - 1;
    text_.resize(std::min(end, text_.size()));
    starts_.resize(n);
}

namespace {

template <class Tail>
Topic joined(Topic head, Tail const& tail) {
    head += tail;
    return head;
}

} // namespace

Topic operator+(Topic const& head, Topic const& tail) {
    return joined(head, tail);
}

Topic operator+(Topic const& head, std::string const& tail) {
    return joined(head, tail);
}

Topic operator+(Topic const& head, char const* tail) {
    return joined(head, Topic(tail));
}

Topic operator+(Topic const& head, zym::common::Uuid const& id) {
    return joined(head, id);
}

std::ostream& operator<<(std::ostream& out, Topic const& topic) {
    return out << topic.text();
}

} // namespace mqtt
