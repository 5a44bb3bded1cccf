#include "support/stack_dump.hpp"

#include "support/eventually.hpp"

#include <dlfcn.h>
#include <execinfo.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <ostream>
#include <sstream>

namespace support {

namespace {

struct Stack {
    std::atomic<long> thread{0}; ///< set when the frames are complete
    int size;
    std::array<void*, 48> frames;
};

std::array<Stack, 256> stacks; ///< each thread that is asked fills one of its own
std::atomic<std::size_t> stacksInUse{0};

long thisThread() {
    return syscall(SYS_gettid);
}

void writeDownFrames(int /*signal*/) {
    std::size_t const index = stacksInUse++;
    if (index < stacks.size()) {
        Stack& stack = stacks[index];
        stack.size = backtrace(stack.frames.data(), static_cast<int>(stack.frames.size()));
        stack.thread = thisThread();
    }
}

/// Sends the signal to all other threads. @return their number
long askThreads(int signal) {
    long count = 0;
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        long const thread = std::stol(entry.path().filename().string());
        if (thread != thisThread() && syscall(SYS_tgkill, getpid(), thread, signal) == 0) {
            ++count;
        }
    }
    return count;
}

} // namespace

std::string outputOf(std::string const& command) {
    std::unique_ptr<FILE, int (*)(FILE*)> const pipe(popen(command.c_str(), "r"), &pclose);
    std::string text;
    for (int character = 0; pipe && (character = std::fgetc(pipe.get())) != EOF;) {
        text.push_back(static_cast<char>(character));
    }
    return text;
}

std::string describeFrame(void* frame) {
    Dl_info info{};
    if (dladdr(frame, &info) == 0 || !info.dli_fname) {
        return "?";
    }
    // A return address is behind its call; one byte back is inside it.
    auto const offset = reinterpret_cast<std::uintptr_t>(frame)
                        - reinterpret_cast<std::uintptr_t>(info.dli_fbase) - 1;
    std::ostringstream command;
    command << "addr2line -Cfipse '" << info.dli_fname << "' 0x" << std::hex << offset
            << " 2>/dev/null";
    std::string const source = outputOf(command.str());
    if (!source.empty() && source.find("??") != 0) {
        return source.substr(0, source.find_last_not_of('\n') + 1);
    }
    return std::string(info.dli_fname) + " " + (info.dli_sname ? info.dli_sname : "");
}

void dumpStacks(std::ostream& out) {
    int const signal = SIGRTMAX - 1;
    struct sigaction action {};
    action.sa_handler = writeDownFrames;
    action.sa_flags = SA_RESTART;
    sigaction(signal, &action, nullptr);
    void* warmUp[1];
    backtrace(warmUp, 1); // its first call loads a library, which a handler must not do
    long const count = askThreads(signal);
    auto const complete = [](Stack const& stack) { return stack.thread != 0; };
    eventually([&] { return std::count_if(stacks.begin(), stacks.end(), complete) >= count; },
               std::chrono::seconds(5));
    constexpr int SIGNAL_FRAMES = 2; // the handler and the kernel's trampoline
    for (Stack const& stack : stacks) {
        if (complete(stack)) {
            out << "  thread " << stack.thread << "\n";
            for (int i = SIGNAL_FRAMES; i < stack.size; ++i) {
                out << "    " << describeFrame(stack.frames[static_cast<std::size_t>(i)]) << "\n";
            }
        }
    }
}

} // namespace support
