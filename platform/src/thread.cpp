#include "thread.hpp"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <memory>
#include <system_error>
#include <utility>

namespace zym::common {

namespace {

// With the usual 8 MiB, some hundred threads do not fit into addresses of 32 bits. Measured: what
// libzym-mqtt does in a callback takes 12 KiB, an exception or the resolution of a name 24, a
// std::regex 0.7 for each character of its text, 1.1 under AddressSanitizer.
constexpr std::size_t STACK_BYTES = std::size_t{512} * 1024;

struct Task {
    char const* name;
    std::function<void()> body;
};

void* run(void* argument) noexcept {
    std::unique_ptr<Task> const task(static_cast<Task*>(argument));
    pthread_setname_np(pthread_self(), task->name);
    task->body();
    return nullptr;
}

/// A new thread begins with the signals blocked that are blocked where it is created. Those that a
/// fault raises in a thread stay: their handlers run there only.
class SignalsBlocked {
public:
    SignalsBlocked() noexcept {
        sigset_t all;
        sigfillset(&all);
        for (int const fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS}) {
            sigdelset(&all, fault);
        }
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsBlocked(SignalsBlocked const&) = delete;
    SignalsBlocked& operator=(SignalsBlocked const&) = delete;

private:
    sigset_t before_{};
};

class Attributes {
public:
    Attributes() noexcept {
        pthread_attr_init(&attributes_);
        // The usual size stays where the system asks for more than this.
        pthread_attr_setstacksize(&attributes_, STACK_BYTES);
    }
    ~Attributes() { pthread_attr_destroy(&attributes_); }
    Attributes(Attributes const&) = delete;
    Attributes& operator=(Attributes const&) = delete;

    pthread_attr_t const* get() const noexcept { return &attributes_; }

private:
    pthread_attr_t attributes_{};
};

int create(pthread_t& handle, Task* task) noexcept {
    SignalsBlocked const blocked;
    Attributes const attributes;
    int const error = pthread_create(&handle, attributes.get(), run, task);
    // The program's thread-local objects stand on the stack as well, and may need more than that.
    return error == EINVAL ? pthread_create(&handle, nullptr, run, task) : error;
}

} // namespace

void Thread::start(char const* name, std::function<void()> body) {
    auto task = std::make_unique<Task>(Task{name, std::move(body)});
    if (int const error = create(handle_, task.get()); error != 0) {
        throw std::system_error(error, std::generic_category(), "No thread to be had");
    }
    static_cast<void>(task.release()); // the thread's now
    joinable_ = true;
}

void Thread::join() noexcept {
    pthread_join(handle_, nullptr);
    joinable_ = false;
}

void Thread::detach() noexcept {
    pthread_detach(handle_);
    joinable_ = false;
}

} // namespace zym::common
