// Passes the files of a folder to a target, one after the other: the seeds in every build, and the
// fuzzer's findings under a debugger.

#include "fuzz/target.hpp"

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

namespace {

// A vector, whose memory ends with the content: a sanitizer then reports a read beyond it.
std::vector<char> content(std::filesystem::path const& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

int replay(fuzz::Target::Function target, std::filesystem::path const& folder) {
    int files = 0;
    for (auto const& entry : std::filesystem::directory_iterator(folder)) {
        std::cout << entry.path().string() << std::endl; // flushed: the target may end the program
        auto const bytes = content(entry.path());
        target(std::string_view(bytes.data(), bytes.size()));
        ++files;
    }
    return files > 0 ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    auto const& targets = fuzz::Target::all();
    auto const target = argc == 3 ? targets.find(argv[1]) : targets.end();
    if (target == targets.end()) {
        std::cerr << "Usage: " << argv[0] << " target folder\n";
        return 2;
    }
    return replay(target->second, argv[2]);
}
