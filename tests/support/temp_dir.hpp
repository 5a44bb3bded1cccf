#pragma once

#include <string>

namespace support {

/// A new directory, removed with everything in it.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(TempDir const&) = delete;
    TempDir& operator=(TempDir const&) = delete;

    std::string const& path() const noexcept { return path_; }
    std::string file(std::string const& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

} // namespace support
