#include "thread.hpp"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <memory>
#include <system_error>
#include <utility>

namespace zym::common {

namespace {

// With the default of 8 MiB, a hundred threads do not fit into a 32-bit address space. Measured:
// the callbacks of libzym-mqtt need 12 KiB, an exception or a name lookup 24 KiB, a std::regex 0.7
// KiB for each character of its text (1.1 KiB under AddressSanitizer).
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

/// Blocks signals in the calling thread, since a new thread starts with the signal mask of the
/// thread that creates it. The signals of a fault stay unblocked: the faulting thread handles them.
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
        // Fails, and leaves the default size, where the system requires more.
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
    // EINVAL: the program's thread-local variables, which share the stack, need more than its size.
    return error == EINVAL ? pthread_create(&handle, nullptr, run, task) : error;
}

} // namespace

void Thread::start(char const* name, std::function<void()> body) {
    auto task = std::make_unique<Task>(Task{name, std::move(body)});
    if (int const error = create(handle_, task.get()); error != 0) {
        throw std::system_error(error, std::generic_category(), "No thread to be had");
    }
    static_cast<void>(task.release()); // `run` owns it now
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
