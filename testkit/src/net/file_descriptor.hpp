#pragma once

#include <unistd.h>

#include <utility>

namespace mqtt::test {

/// Owns a file descriptor.
class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int value) noexcept : value_(value) {}
    FileDescriptor(FileDescriptor&& other) noexcept : value_(std::exchange(other.value_, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        if (this != &other) {
            reset(std::exchange(other.value_, -1));
        }
        return *this;
    }
    ~FileDescriptor() { reset(); }

    int get() const noexcept { return value_; }
    bool valid() const noexcept { return value_ >= 0; }
    void reset(int value = -1) noexcept {
        if (value_ >= 0) {
            ::close(value_);
        }
        value_ = value;
    }

private:
    int value_ = -1;
};

} // namespace mqtt::test
