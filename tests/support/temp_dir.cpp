#include "support/temp_dir.hpp"

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>

namespace support {

TempDir::TempDir() : path_(std::filesystem::temp_directory_path() / "zym-test-XXXXXX") {
    if (!mkdtemp(path_.data())) {
        throw std::runtime_error("cannot make a directory like " + path_);
    }
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

} // namespace support
