#include "support/stack_dump.hpp"

#include "support/eventually.hpp"

#include <dlfcn.h>
#include <execinfo.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

namespace support {

namespace {

/// Filled by the signal handler in the thread that was asked; one thread at a time.
struct Answer {
    std::array<void*, 48> frames;
    std::atomic<int> count{-1};
    std::atomic<pid_t> asked{0}; ///< 0: nobody, or it answers already
};
Answer answer;

pid_t thisThread() {
    return static_cast<pid_t>(syscall(SYS_gettid));
}

void answerWithFrames(int /*signal*/) {
    // A thread that took too long keeps quiet: another one may be writing by now.
    pid_t self = thisThread();
    if (!answer.asked.compare_exchange_strong(self, 0)) {
        return;
    }
    answer.count = backtrace(answer.frames.data(), static_cast<int>(answer.frames.size()));
}

struct Place {
    std::string file;      ///< of the program or library
    std::uintptr_t offset; ///< in it
};

Place placeOf(void* frame) {
    Dl_info info{};
    if (dladdr(frame, &info) == 0 || !info.dli_fname) {
        return {"?", reinterpret_cast<std::uintptr_t>(frame)};
    }
    auto const base = reinterpret_cast<std::uintptr_t>(info.dli_fbase);
    // A return address points behind its call; one byte back is inside it.
    return {info.dli_fname, reinterpret_cast<std::uintptr_t>(frame) - base - 1};
}

/// Function, file and line; more lines for calls that were inlined.
std::string sourceLine(Place const& place) {
    std::ostringstream command;
    command << "addr2line -Cfipse '" << place.file << "' 0x" << std::hex << place.offset
            << " 2>/dev/null";
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.str().c_str(), "r"), &pclose);
    std::string text;
    std::array<char, 512> part{};
    while (pipe && std::fgets(part.data(), static_cast<int>(part.size()), pipe.get())) {
        text += part.data();
    }
    text.erase(text.find_last_not_of('\n') + 1);
    return text.find("??") == 0 ? std::string() : text;
}

} // namespace

std::string describeFrame(void* frame) {
    Place const place = placeOf(frame);
    std::string const source = place.file == "?" ? std::string() : sourceLine(place);
    if (!source.empty()) {
        return source;
    }
    std::ostringstream text;
    text << std::filesystem::path(place.file).filename().string() << "+0x" << std::hex
         << place.offset;
    Dl_info info{};
    if (dladdr(frame, &info) != 0 && info.dli_sname) {
        text << " " << info.dli_sname;
    }
    return text.str();
}

namespace {

std::vector<pid_t> threads() {
    std::vector<pid_t> ids;
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        ids.push_back(static_cast<pid_t>(std::stol(entry.path().filename().string())));
    }
    return ids;
}

std::string nameOf(pid_t thread) {
    std::string name;
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/comm");
    std::getline(file, name);
    return name;
}

void dump(std::ostream& out, pid_t thread, int signal) {
    out << "  thread " << thread << " " << nameOf(thread) << "\n";
    auto const answered = [] { return answer.count >= 0; };
    answer.count = -1;
    answer.asked = thread;
    syscall(SYS_tgkill, getpid(), thread, signal);
    if (!eventually(answered, std::chrono::seconds(2)) && answer.asked.exchange(0) == thread) {
        out << "    does not answer\n";
        return;
    }
    eventually(answered);
    constexpr int SIGNAL_FRAMES = 2; // the handler and the kernel's trampoline
    for (int i = SIGNAL_FRAMES; i < answer.count; ++i) {
        out << "    " << describeFrame(answer.frames[static_cast<std::size_t>(i)]) << "\n";
    }
}

} // namespace

void dumpStacks(std::ostream& out) {
    int const signal = SIGRTMAX - 1;
    struct sigaction action {};
    action.sa_handler = answerWithFrames;
    action.sa_flags = SA_RESTART;
    sigaction(signal, &action, nullptr);
    void* warmUp[1];
    backtrace(warmUp, 1); // its first call loads a library, which a handler must not do
    pid_t const self = thisThread();
    for (pid_t const thread : threads()) {
        if (thread != self) {
            dump(out, thread, signal);
        }
    }
}

} // namespace support
