// zymctl: looks at the topics and services of the library on a broker, from a shell.

#include "commands.hpp"

#include <CLI/CLI.hpp>

#include <cstdint>
#include <exception>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <variant>

namespace {

struct Command {
    char const* name;
    char const* text;
    ExitCode (*run)(Context& context);
};

constexpr Command COMMANDS[] = {
    {"tree", "Show what a device consists of: entities with identification and status", runTree},
    {"watch", "Print messages as they arrive", runWatch},
    {"get", "Print the value of a topic", runGet},
    {"set", "Publish a value", runSet},
    {"clear", "Erase the retained value of a topic", runClear},
    {"clean", "Erase all retained values of a pattern", runClean},
    {"call", "Send a request and print the reply", runCall},
    {"serve", "Answer requests with a fixed document", runServe},
    {"bind", "Bind to a server and hold the binding", runBind},
    {"time", "Show a server's time, the offset and how it settles", runTime},
    {"check", "Check what a broker has retained", runCheck},
    {"doctor", "Find out what a broker supports, and what of the library works there", runDoctor},
};

constexpr char const* REQUIRED = nullptr;
constexpr char const* OPTIONAL = "";

struct Argument {
    char const* commands; ///< that have it; "": all
    char const* name;     ///< of an option with dashes, otherwise of a positional argument
    char const* type;     ///< of an option's value; of a positional argument REQUIRED or OPTIONAL
    std::variant<std::string Settings::*, unsigned Settings::*, std::uint16_t Settings::*,
                 std::uint8_t Settings::*, bool Settings::*, std::vector<std::string> Settings::*>
        value;
    char const* text;
    char const* variable = ""; ///< of the environment, used if the option is not given
};

using S = Settings;

// clang-format off
constexpr Argument ARGUMENTS[] = {
    {"", "--host", "HOST", &S::host, "the broker: name or address", "ZYMCTL_HOST"},
    {"", "--port", "NUMBER", &S::port, "its port: 1883, or 8883 with TLS", "ZYMCTL_PORT"},
    {"", "--unix", "PATH", &S::unixSocket, "the broker's unix socket, in place of a host"},
    {"", "--user", "NAME", &S::user, "user name; the password is in ZYMCTL_PASSWORD or a file", "ZYMCTL_USER"},
    {"", "--password-file", "FILE", &S::passwordFile, "its first line is the password"},
    {"", "--tls", "", &S::tls, "TLS, with the system's authorities unless others are given"},
    {"", "--ca", "FILE", &S::caFile, "the authorities that sign the broker's certificate"},
    {"", "--ca-folder", "FOLDER", &S::caFolder, "the same, prepared by openssl rehash"},
    {"", "--cert", "FILE", &S::certificateFile, "the own certificate"},
    {"", "--key", "FILE", &S::keyFile, "its key; the password of it is in ZYMCTL_KEY_PASSWORD"},
    {"", "--key-password-file", "FILE", &S::keyPasswordFile, "or is the first line of this file"},
    {"", "--psk-identity", "NAME", &S::pskIdentity, "TLS with a pre-shared key, which is in ZYMCTL_PSK or a file"},
    {"", "--psk-file", "FILE", &S::pskFile, "its first line is that key, in hexadecimal digits"},
    {"", "--tls-version", "1.2|1.3", &S::tlsVersion, "the oldest version of TLS to accept"},
    {"", "--insecure-skip-host-name-check", "", &S::insecureSkipHostNameCheck, "accept a certificate of any host"},
    {"", "--id", "ID", &S::identity, "who sends requests; different in each run unless given"},
    {"", "--timeout", "SECONDS", &S::timeout, "how long to wait for an answer", "ZYMCTL_TIMEOUT"},
    {"", "--json", "", &S::json, "JSON, one object on each line; no colour, no progress"},

    {"tree", "BASE", REQUIRED, &S::topic, "the topic on which the links to the entities are published"},
    {"tree", "--watch", "", &S::watch, "show each change, until Ctrl-C"},
    {"watch clean", "PATTERN", REQUIRED, &S::topic, "a topic, or a pattern with + and #"},
    {"watch", "--count", "NUMBER", &S::count, "end after so many messages"},
    {"watch", "--for", "SECONDS", &S::seconds, "end after this time; else with Ctrl-C"},
    {"get", "TOPIC", REQUIRED, &S::topic, "its retained value, or else the next one"},
    {"set", "TOPIC", REQUIRED, &S::topic, "where to publish it"},
    {"set", "VALUE", REQUIRED, &S::value, "any text; - for what the standard input has"},
    {"set", "--qos", "0|1|2", &S::qos, "quality of service"},
    {"set", "--no-retain", "", &S::notRetained, "the broker does not keep the value"},
    {"clear", "TOPIC", REQUIRED, &S::topic, "whose value the broker forgets"},
    {"clean", "--for", "SECONDS", &S::cleanSeconds, "how long to wait for retained values"},
    {"call serve bind time", "BASE", REQUIRED, &S::topic, "the topic that all topics of the service begin with"},
    {"call serve", "SERVICE", REQUIRED, &S::service, "its name"},
    {"call serve", "JSON", OPTIONAL, &S::value, "the payload of the request, or of each reply, an object"},
    {"call serve bind time", "--server", "ID", &S::server, "who answers"},
    {"call serve bind", "--sub-path", "TOPIC", &S::subPath, "levels between server and service"},
    {"serve", "--error", "CODE", &S::code, "of each reply: 1 is success, 16 and above refuse"},
    {"bind", "--topic", "TOPIC", &S::boundTopic, "sent with the request; the service gives it a meaning"},
    {"bind", "--for", "SECONDS", &S::seconds, "how long to hold the binding; else until Ctrl-C"},
    {"time", "--watch", "", &S::watch, "until Ctrl-C; there is an exchange every 30 seconds"},
    {"check", "collection|link|clean", REQUIRED, &S::kindOfCheck,
     "TOPIC links to exactly the entities ID...; TOPIC has LINK; nothing is retained on TOPIC"},
    {"check", "TOPIC", REQUIRED, &S::topic, "a topic; for clean also a pattern"},
    {"check", "ID|LINK", OPTIONAL, &S::expected, "what is expected there"},
    {"doctor", "HOST", OPTIONAL, &S::host, "the broker, as --host"},
    {"doctor", "--base", "TOPIC", &S::topic, "try topics below this one"},
    {"doctor", "--max-payload", "BYTES", &S::maxPayload, "the largest payload to try"},
};
// clang-format on

/// @param command "": the arguments that all commands have
void addArguments(CLI::App& app, std::string const& command, Settings& settings) {
    for (auto const& argument : ARGUMENTS) {
        auto const commands = ' ' + std::string(argument.commands) + ' ';
        if (commands.find(' ' + command + ' ') == std::string::npos) {
            continue;
        }
        auto const add = [&](auto member) {
            auto& value = settings.*member;
            if constexpr (std::is_same_v<decltype(member), bool Settings::*>) {
                app.add_flag(argument.name, value, argument.text);
            } else {
                app.add_option(argument.name, value, argument.text)
                    ->required(argument.type == REQUIRED)
                    ->type_name(argument.type == REQUIRED ? "" : argument.type)
                    ->envname(argument.variable);
            }
        };
        std::visit(add, argument.value);
    }
}

/// Reads the arguments and runs the command.
ExitCode runCommandLine(int argc, char const* const* argv, Context& context) {
    CLI::App app("Looks at the topics and services of libzym-mqtt on a broker, and uses them.",
                 "zymctl");
    app.set_version_flag("--version", "zymctl " ZYM_MQTT_VERSION);
    app.require_subcommand(1);
    app.fallthrough();
    app.footer("Exit codes: 0 done; 1 refused or failed; 2 wrong usage; 3 no connection; 4 no "
               "answer in time;\n130 interrupted before it was done. Details: man zymctl");
    addArguments(app, "", context.settings);
    auto code = ExitCode::DONE;
    for (auto const& command : COMMANDS) {
        auto* const subcommand = app.add_subcommand(command.name, command.text);
        subcommand->fallthrough();
        subcommand->callback([&] { code = command.run(context); });
        addArguments(*subcommand, command.name, context.settings);
    }
    try {
        app.parse(argc, argv);
    } catch (CLI::ParseError const& error) {
        return app.exit(error) == 0 ? ExitCode::DONE : ExitCode::USAGE;
    }
    return code;
}

} // namespace

int main(int argc, char* argv[]) try {
    Context context;
    auto const failed = [&](ExitCode code, char const* text) {
        context.console.note(std::string("zymctl: ") + text);
        return static_cast<int>(code);
    };
    try {
        return static_cast<int>(runCommandLine(argc, argv, context));
    } catch (CommandFailed const& failure) {
        return failed(failure.code, failure.what());
    } catch (std::invalid_argument const& error) { // options or names that the library refuses
        return failed(ExitCode::USAGE, error.what());
    } catch (std::exception const& error) {
        return failed(ExitCode::FAILED, error.what());
    }
} catch (...) {
    return static_cast<int>(ExitCode::FAILED); // no memory, no thread
}
