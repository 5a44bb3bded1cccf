#include "support/stack_dump.hpp"

#include "mqtt/test/eventually.hpp"

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
#include <memory>
#include <ostream>
#include <sstream>

namespace support {

namespace {

std::array<void*, 48> frames;
std::atomic<int> frameCount{0};

void writeDownFrames(int /*signal*/) {
    // The look at the counter puts this call behind the last use of the frames.
    if (frameCount == 0) {
        frameCount = backtrace(frames.data(), static_cast<int>(frames.size()));
    }
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
    backtrace(frames.data(), 1); // its first call loads a library, which a handler must not do
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        long const thread = std::stol(entry.path().filename().string());
        if (thread == syscall(SYS_gettid)) {
            continue;
        }
        frameCount = 0;
        syscall(SYS_tgkill, getpid(), thread, signal);
        if (mqtt::test::eventually([] { return frameCount > 0; }, std::chrono::seconds(2))) {
            out << "  thread " << thread << "\n";
        }
        constexpr int SIGNAL_FRAMES = 2; // the handler and the kernel's trampoline
        for (int i = SIGNAL_FRAMES; i < frameCount; ++i) {
            out << "    " << describeFrame(frames[static_cast<std::size_t>(i)]) << "\n";
        }
    }
}

} // namespace support
