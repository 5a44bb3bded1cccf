#include "support/last_words.hpp"

#include <algorithm>
#include <mutex>
#include <utility>
#include <vector>

namespace support {

namespace {

struct Speakers {
    std::mutex mutex;
    std::vector<LastWords*> all;
};

Speakers& speakers() {
    static Speakers instance;
    return instance;
}

} // namespace

LastWords::LastWords(std::function<void(std::ostream&)> speak) : speak_(std::move(speak)) {
    std::lock_guard<std::mutex> lock(speakers().mutex);
    speakers().all.push_back(this);
}

LastWords::~LastWords() {
    std::lock_guard<std::mutex> lock(speakers().mutex);
    auto& all = speakers().all;
    all.erase(std::remove(all.begin(), all.end(), this), all.end());
}

void LastWords::speakAll(std::ostream& out) {
    std::lock_guard<std::mutex> lock(speakers().mutex);
    for (LastWords* speaker : speakers().all) {
        speaker->speak_(out);
    }
}

} // namespace support
