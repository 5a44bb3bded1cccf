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
#include <filesystem>
#include <fstream>
#include <memory>
#include <ostream>
#include <sstream>

namespace support {

namespace {

// Filled by the signal handler in the thread that was asked; one thread at a time.
std::array<void*, 48> frames;
std::atomic<int> frameCount{-1};
std::atomic<pid_t> askedThread{0}; ///< 0: none, or it answers already

pid_t thisThread() {
    return static_cast<pid_t>(syscall(SYS_gettid));
}

void answerWithFrames(int /*signal*/) {
    // A thread that answers too late does nothing: another one may be writing by now.
    pid_t self = thisThread();
    if (askedThread.compare_exchange_strong(self, 0)) {
        frameCount = backtrace(frames.data(), static_cast<int>(frames.size()));
    }
}

std::string outputOf(std::string const& command) {
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), &pclose);
    std::string text;
    std::array<char, 512> part{};
    while (pipe && std::fgets(part.data(), static_cast<int>(part.size()), pipe.get())) {
        text += part.data();
    }
    text.erase(text.find_last_not_of('\n') + 1);
    return text;
}

std::string nameOf(std::string const& thread) {
    std::string name;
    std::ifstream file("/proc/self/task/" + thread + "/comm");
    std::getline(file, name);
    return name;
}

void dumpStack(std::ostream& out, pid_t thread, int signal) {
    auto const answered = [] { return frameCount >= 0; };
    frameCount = -1;
    askedThread = thread;
    syscall(SYS_tgkill, getpid(), thread, signal);
    if (!eventually(answered, std::chrono::seconds(2)) && askedThread.exchange(0) == thread) {
        out << "    does not answer\n";
        return;
    }
    eventually(answered);
    constexpr int SIGNAL_FRAMES = 2; // the handler and the kernel's trampoline
    for (int i = SIGNAL_FRAMES; i < frameCount; ++i) {
        out << "    " << describeFrame(frames[static_cast<std::size_t>(i)]) << "\n";
    }
}

} // namespace

std::string describeFrame(void* frame) {
    Dl_info info{};
    auto const address = reinterpret_cast<std::uintptr_t>(frame);
    std::ostringstream text;
    if (dladdr(frame, &info) == 0 || !info.dli_fname) {
        text << "?+0x" << std::hex << address;
        return text.str();
    }
    // A return address is behind its call; one byte back is inside it.
    auto const offset = address - reinterpret_cast<std::uintptr_t>(info.dli_fbase) - 1;
    text << "addr2line -Cfipse '" << info.dli_fname << "' 0x" << std::hex << offset
         << " 2>/dev/null";
    std::string const source = outputOf(text.str());
    if (!source.empty() && source.find("??") != 0) {
        return source;
    }
    text.str("");
    text << std::filesystem::path(info.dli_fname).filename().string() << "+0x" << offset << " "
         << (info.dli_sname ? info.dli_sname : "");
    return text.str();
}

void dumpStacks(std::ostream& out) {
    int const signal = SIGRTMAX - 1;
    struct sigaction action {};
    action.sa_handler = answerWithFrames;
    action.sa_flags = SA_RESTART;
    sigaction(signal, &action, nullptr);
    void* warmUp[1];
    backtrace(warmUp, 1); // its first call loads a library, which a handler must not do
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string const thread = entry.path().filename().string();
        if (thread != std::to_string(thisThread())) {
            out << "  thread " << thread << " " << nameOf(thread) << "\n";
            dumpStack(out, static_cast<pid_t>(std::stol(thread)), signal);
        }
    }
}

} // namespace support
