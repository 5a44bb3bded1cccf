#pragma once

#include <functional>

#include <pthread.h>

namespace zym::common {

/// A thread of the library's own: it has a name and a small stack, and blocks all
/// signals but those of a fault.
///
/// Not for several threads at once. If it is neither joined nor detached, the destructor does
/// nothing: the thread goes on, and its memory is never freed.
class Thread {
public:
    /// Starts the thread, once.
    /// @param name at most 15 characters; a literal
    /// @param body must not throw
    /// @throws std::system_error when there is no thread to be had
    /// @throws std::bad_alloc
    void start(char const* name, std::function<void()> body);

    /// Whether it was started, and neither joined nor detached since.
    bool isJoinable() const noexcept { return joinable_; }
    void join() noexcept;
    void detach() noexcept;

private:
    pthread_t handle_{};
    bool joinable_ = false;
};

} // namespace zym::common
