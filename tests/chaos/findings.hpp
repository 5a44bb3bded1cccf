#pragma once

#include <atomic>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace chaos {

/// What a run counts, and what it finds broken.
class Findings {
public:
    /// Something that must hold does not. The first ones are kept, all are counted.
    void breach(std::string const& what);
    /// @param name as it stands in the report
    void count(std::string const& name, std::uint64_t n = 1);

    std::uint64_t counted(std::string const& name) const;
    std::uint64_t breaches() const;
    std::vector<std::string> firstBreaches() const;
    /// One line per count, by name, then the breaches.
    void print(std::ostream& out) const;

private:
    mutable std::mutex mutex_;
    std::map<std::string, std::uint64_t> counts_;
    std::vector<std::string> breaches_;
    std::uint64_t breachCount_ = 0;
};

} // namespace chaos
