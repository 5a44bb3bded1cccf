#include "data/array_elements.hpp"

#include <algorithm>
#include <cstddef>
#include <stdexcept>

namespace mqtt {

namespace {

bool isBlank(char c) {
    return c == ' ' || c == '\n' || c == '\r' || c == '\t';
}

std::string_view withoutTrailingBlanks(std::string_view text) {
    while (!text.empty() && isBlank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

bool endsWithAnEscape(std::string_view text) {
    auto const last = text.find_last_not_of('\\');
    auto const backslashes = last == std::string_view::npos ? text.size() : text.size() - last - 1;
    return backslashes % 2 != 0;
}

} // namespace

ArrayElements::ArrayElements(std::string_view text) : text_(text) {
    skipBlanks();
    if (at_ == text_.size() || text_[at_] != '[') {
        throw std::runtime_error("Not a JSON array");
    }
    ++at_;
    skipBlanks();
    hasNext_ = at() != ']';
}

bool ArrayElements::next(std::string_view& element) {
    if (!hasNext_) {
        return false;
    }
    skipBlanks();
    auto const begin = at_;
    skipValue();
    element = withoutTrailingBlanks(text_.substr(begin, at_ - begin));
    hasNext_ = text_[at_] == ',';
    if (text_[at_] == '}') {
        throw std::runtime_error("A JSON array with another end");
    }
    ++at_;
    return true;
}

char ArrayElements::at() const {
    if (at_ == text_.size()) {
        throw std::runtime_error("A JSON array without an end");
    }
    return text_[at_];
}

void ArrayElements::skipBlanks() {
    while (at_ < text_.size() && isBlank(text_[at_])) {
        ++at_;
    }
}

/// To the comma or bracket that follows it.
void ArrayElements::skipValue() {
    for (std::size_t depth = 0;; ++at_) {
        char const c = at();
        if (c == '"') {
            skipString();
        } else if (c == '[' || c == '{') {
            ++depth;
        } else if (c == ']' || c == '}' || c == ',') {
            if (depth == 0) {
                return;
            }
            depth -= c == ',' ? 0 : 1;
        }
    }
}

/// From its first quotation mark to its last.
void ArrayElements::skipString() {
    auto const begin = at_ + 1;
    do {
        at_ = std::min(text_.find('"', at_ + 1), text_.size());
        static_cast<void>(at());
    } while (endsWithAnEscape(text_.substr(begin, at_ - begin)));
}

} // namespace mqtt
