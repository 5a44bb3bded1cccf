#pragma once

#include <algorithm>
#include <string>
#include <string_view>

namespace fuzz {

/// Takes bytes apart into texts. The first byte says which byte ends each of them: a line feed in
/// the seeds, so that they can be read; any other lets texts hold line feeds.
class Lines {
public:
    explicit Lines(std::string_view bytes) : rest_(bytes) {
        if (!rest_.empty()) {
            end_ = rest_.front();
            rest_.remove_prefix(1);
        }
    }

    bool none() const { return rest_.empty(); }
    std::string_view rest() const { return rest_; }

    std::string next() {
        std::string_view const line = rest_.substr(0, rest_.find(end_));
        rest_.remove_prefix(std::min(line.size() + 1, rest_.size()));
        return std::string(line);
    }

private:
    std::string_view rest_;
    char end_ = '\n';
};

} // namespace fuzz
