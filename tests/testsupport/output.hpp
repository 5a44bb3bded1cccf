#pragma once

#include "support/watched.hpp"

#include <iostream>
#include <streambuf>
#include <string>

/// Takes what is written to the standard output while it lives, from whatever thread.
class Output : private std::streambuf {
public:
    Output() : before_(std::cout.rdbuf(this)) {}
    ~Output() override {
        std::cout.rdbuf(before_); // clears the state too
    }
    Output(Output const&) = delete;
    Output& operator=(Output const&) = delete;

    std::string text() const { return text_.copy(); }
    bool waitFor(std::string const& part) const {
        return text_.waitFor(
            [&](auto const& text) { return text.find(part) != std::string::npos; });
    }

private:
    int_type overflow(int_type character) override {
        text_.change([&](auto& text) { text += traits_type::to_char_type(character); });
        return character;
    }
    std::streamsize xsputn(char const* bytes, std::streamsize count) override {
        text_.change([&](auto& text) { text.append(bytes, static_cast<std::size_t>(count)); });
        return count;
    }

    support::Watched<std::string> text_;
    std::streambuf* before_;
};
