#include "arguments.hpp"

#include <CLI/CLI.hpp>

#include <iostream>

namespace {

struct Entry {
    char const* name;
    char const* text;
    std::unique_ptr<Command> (*make)();
};

constexpr Entry COMMANDS[] = {
    {"tree", "Show what a device consists of: entities with identification and status", makeTree},
    {"watch", "Print messages as they arrive", makeWatch},
    {"get", "Print the value of a topic", makeGet},
    {"set", "Publish a value", makeSet},
    {"clear", "Erase the retained value of a topic", makeClear},
    {"clean", "Erase all retained values of a pattern", makeClean},
    {"call", "Send a request and print the reply", makeCall},
    {"serve", "Answer requests with a fixed document", makeServe},
    {"bind", "Bind to a server and hold the binding", makeBind},
    {"time", "Show a server's time, the offset and how it settles", makeTime},
    {"check", "Check what a broker has retained", makeCheck},
    {"doctor", "Find out what a broker supports, and what of the library works there", makeDoctor},
};

constexpr char EXIT_CODES[] = "Exit codes: 0 done; 1 refused or failed; 2 wrong usage; 3 no "
                              "connection; 4 no answer in time;\n"
                              "130 interrupted before it was done. Details: man zymctl";

} // namespace

void Arguments::required(std::string& value, char const* name, char const* text) {
    command_.add_option(name, value, text)->required()->type_name("");
}

void Arguments::optional(std::string& value, char const* name, char const* text) {
    command_.add_option(name, value, text)->type_name("");
}

void Arguments::more(std::vector<std::string>& values, char const* name, char const* text) {
    command_.add_option(name, values, text)->type_name("");
}

void Arguments::option(std::string& value, char const* names, char const* type, char const* text,
                       char const* variable) {
    command_.add_option(names, value, text)
        ->type_name(type)
        ->envname(variable == nullptr ? "" : variable);
}

void Arguments::option(unsigned& value, char const* names, char const* type, char const* text,
                       char const* variable) {
    command_.add_option(names, value, text)
        ->type_name(type)
        ->envname(variable == nullptr ? "" : variable);
}

void Arguments::flag(bool& value, char const* names, char const* text) {
    command_.add_flag(names, value, text);
}

ExitCode runCommandLine(int argc, char const* const* argv, Context& context) {
    CLI::App app("Looks at the topics and services of libzym-mqtt on a broker, and uses them.",
                 "zymctl");
    app.set_version_flag("--version", "zymctl " ZYM_MQTT_VERSION);
    app.require_subcommand(1);
    app.fallthrough();
    app.footer(EXIT_CODES);
    Arguments general(app);
    context.settings.addTo(general);

    std::vector<std::unique_ptr<Command>> commands;
    for (auto const& entry : COMMANDS) {
        commands.push_back(entry.make());
        auto* const subcommand = app.add_subcommand(entry.name, entry.text);
        subcommand->fallthrough();
        Arguments arguments(*subcommand);
        commands.back()->addTo(arguments);
    }
    try {
        app.parse(argc, argv);
    } catch (CLI::ParseError const& error) {
        return app.exit(error) == 0 ? ExitCode::DONE : ExitCode::USAGE;
    }
    if (context.settings.json) {
        context.console.useJson();
    }
    for (std::size_t i = 0; i < commands.size(); ++i) {
        if (app.got_subcommand(COMMANDS[i].name)) {
            return commands[i]->run(context);
        }
    }
    return ExitCode::USAGE;
}
