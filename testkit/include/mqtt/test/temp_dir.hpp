#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace mqtt::test {

/// A new directory, removed with everything in it.
class TempDir {
public:
    TempDir() : path_(std::filesystem::temp_directory_path() / "zym-test-XXXXXX") {
        if (mkdtemp(path_.data()) == nullptr) {
            throw std::runtime_error("cannot make a directory like " + path_);
        }
    }
    ~TempDir() { remove(); }
    TempDir(TempDir const&) = delete;
    TempDir& operator=(TempDir const&) = delete;

    std::string const& path() const noexcept { return path_; }
    std::string file(std::string const& name) const { return path_ + "/" + name; }
    /// The content of a file in it; empty when there is no such file.
    std::string read(std::string const& name) const {
        std::ifstream in(file(name));
        return {std::istreambuf_iterator<char>(in), {}};
    }
    void remove() const noexcept {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

private:
    std::string path_;
};

} // namespace mqtt::test
