#pragma once

#include "settings.hpp"

#include <memory>
#include <string>
#include <vector>

namespace CLI {
class App;
} // namespace CLI

/// Names the arguments of a command, and the variables that get their values.
class Arguments {
public:
    explicit Arguments(CLI::App& command) : command_(command) {}

    void required(std::string& value, char const* name, char const* text);
    void optional(std::string& value, char const* name, char const* text);
    void more(std::vector<std::string>& values, char const* name, char const* text);
    /// @param variable of the environment, which is used if the option is not given
    void option(std::string& value, char const* names, char const* type, char const* text,
                char const* variable = nullptr);
    void option(unsigned& value, char const* names, char const* type, char const* text,
                char const* variable = nullptr);
    void flag(bool& value, char const* names, char const* text);

private:
    CLI::App& command_;
};

/// A command of zymctl. Each has a file of its own.
class Command {
public:
    Command() = default;
    virtual ~Command() = default;
    Command(Command const&) = delete;
    Command& operator=(Command const&) = delete;

    virtual void addTo(Arguments& arguments) = 0;
    /// @throws CommandFailed
    virtual ExitCode run(Context& context) = 0;
};

std::unique_ptr<Command> makeTree();
std::unique_ptr<Command> makeWatch();
std::unique_ptr<Command> makeGet();
std::unique_ptr<Command> makeSet();
std::unique_ptr<Command> makeClear();
std::unique_ptr<Command> makeClean();
std::unique_ptr<Command> makeCall();
std::unique_ptr<Command> makeServe();
std::unique_ptr<Command> makeBind();
std::unique_ptr<Command> makeTime();
std::unique_ptr<Command> makeCheck();
std::unique_ptr<Command> makeDoctor();

/// Reads the arguments and runs the command.
ExitCode runCommandLine(int argc, char const* const* argv, Context& context);
