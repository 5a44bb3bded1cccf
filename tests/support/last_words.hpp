#pragma once

#include <functional>
#include <iosfwd>

namespace support {

/// What an object has to say and to tidy up when the watchdog is about to end the process,
/// where no destructor runs any more.
class LastWords {
public:
    /// @param speak runs on the watchdog's thread while the test hangs: it must not take a lock
    ///        that the test may hold
    explicit LastWords(std::function<void(std::ostream&)> speak);
    ~LastWords();
    LastWords(LastWords const&) = delete;
    LastWords& operator=(LastWords const&) = delete;

    static void speakAll(std::ostream& out);

private:
    std::function<void(std::ostream&)> speak_;
};

} // namespace support
