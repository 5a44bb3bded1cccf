#pragma once

#include <functional>

#include <pthread.h>

namespace zym::common {

/// A thread of the library: it has a name and a small stack, and blocks all signals except those of
/// a fault.
///
/// Not for several threads at once. The destructor of a thread that was neither joined nor detached
/// does nothing: the thread goes on, and its memory is never freed.
class Thread {
public:
    /// Starts the thread, once.
    /// @param name at most 15 characters; a literal
    /// @param body must not throw
    /// @throws std::system_error when the system has no thread left
    /// @throws std::bad_alloc
    void start(char const* name, std::function<void()> body);

    /// True after `start`, until `join` or `detach`.
    bool isJoinable() const noexcept { return joinable_; }
    void join() noexcept;
    void detach() noexcept;

private:
    pthread_t handle_{};
    bool joinable_ = false;
};

} // namespace zym::common
