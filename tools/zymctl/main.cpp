// zymctl: looks at the topics and services of the library on a broker, from a shell.

#include "arguments.hpp"

#include <exception>
#include <stdexcept>
#include <string>

int main(int argc, char* argv[]) try {
    Context context;
    auto const failed = [&](ExitCode code, char const* text) {
        context.console.note(std::string("zymctl: ") + text);
        return static_cast<int>(code);
    };
    try {
        return static_cast<int>(runCommandLine(argc, argv, context));
    } catch (CommandFailed const& failure) {
        return failed(failure.code(), failure.what());
    } catch (std::invalid_argument const& error) { // options or names that the library refuses
        return failed(ExitCode::USAGE, error.what());
    } catch (std::exception const& error) {
        return failed(ExitCode::FAILED, error.what());
    }
} catch (...) {
    return static_cast<int>(ExitCode::FAILED); // no memory, no thread
}
