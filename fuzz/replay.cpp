// Passes the files of a folder to the target, one after the other: the seeds in every build, and
// the fuzzer's findings under a debugger.

#include "fuzz/target.hpp"

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

int main(int argc, char** argv) {
    int files = 0;
    for (auto const& entry : std::filesystem::directory_iterator(argc == 2 ? argv[1] : "")) {
        std::cout << entry.path().string() << std::endl; // flushed: the target may end the program
        std::ifstream in(entry.path(), std::ios::binary);
        // A vector, whose memory ends with the content: a sanitizer then reports a read beyond it.
        std::vector<char> const bytes{std::istreambuf_iterator<char>(in), {}};
        fuzz::run({bytes.data(), bytes.size()});
        ++files;
    }
    return files > 0 ? 0 : 1;
}
