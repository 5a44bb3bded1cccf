#include "options.hpp"

#include <cstddef>
#include <stdexcept>

namespace bench {

char const* const USAGE =
    "bench-client [options]\n"
    "Compares mqtt::MqttClient with bare libmosquittopp and with Paho C++, in turns, on one "
    "broker.\n"
    "  --repetitions N           how often everything is repeated (9)\n"
    "  --quick                   one repetition of a few messages: only shows that it works\n"
    "  --broker shipped|nodelay|both\n"
    "                            configuration of the broker (both)\n"
    "  --only TEXT               only the measurements whose name contains TEXT\n"
    "  --messages N              messages in a throughput run (20000), five times\n"
    "                            as many at QoS 0\n"
    "  --window N                messages on their way at the same time, at most (800)\n"
    "  --cpu N                   the processor for broker and clients (the last one)\n"
    "  --control                 libmosquittopp in our place: shows the noise\n"
    "  --results FILE            appends the figures to FILE, as comma-separated values\n"
    "  --help\n";

namespace {

unsigned long number(std::string const& option, std::string const& text) {
    std::size_t used = 0;
    unsigned long value = 0;
    try {
        value = std::stoul(text, &used);
    } catch (std::exception const&) {
        used = 0;
    }
    if (used == 0 || used != text.size() || value > 100'000'000) {
        throw std::invalid_argument(option + " needs a number, not \"" + text + '"');
    }
    return value;
}

unsigned positive(std::string const& option, std::string const& text) {
    unsigned long const value = number(option, text);
    if (value == 0) {
        throw std::invalid_argument(option + " needs at least 1");
    }
    return static_cast<unsigned>(value);
}

std::vector<BrokerProcess::Variant> variants(std::string const& text) {
    if (text == "shipped") {
        return {BrokerProcess::Variant::SHIPPED};
    }
    if (text == "nodelay") {
        return {BrokerProcess::Variant::NODELAY};
    }
    if (text == "both") {
        return {BrokerProcess::Variant::SHIPPED, BrokerProcess::Variant::NODELAY};
    }
    throw std::invalid_argument("--broker is shipped, nodelay or both, not \"" + text + '"');
}

void beQuick(Options& options) {
    options.repetitions = 1;
    options.effort = {300, 100, 20, 10, 1};
}

/// @return whether it was an option without a value
bool parseSwitch(std::string const& option, Options& options) {
    if (option == "--quick") {
        beQuick(options);
    } else if (option == "--control") {
        options.control = true;
    } else if (option == "--help") {
        options.help = true;
    } else {
        return false;
    }
    return true;
}

void parseValue(std::string const& option, std::string const& value, Options& options) {
    if (option == "--repetitions") {
        options.repetitions = positive(option, value);
    } else if (option == "--broker") {
        options.brokers = variants(value);
    } else if (option == "--only") {
        options.only = value;
    } else if (option == "--results") {
        options.results = value;
    } else if (option == "--messages") {
        options.effort.messages = positive(option, value);
    } else if (option == "--window") {
        options.effort.window = positive(option, value);
    } else if (option == "--cpu") {
        options.cpu = static_cast<int>(number(option, value));
    } else {
        throw std::invalid_argument("unknown option " + option);
    }
}

} // namespace

Options parseOptions(std::vector<std::string> const& arguments) {
    Options options;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        if (parseSwitch(arguments[i], options)) {
            continue;
        }
        std::string const value = i + 1 < arguments.size() ? arguments[i + 1] : "";
        parseValue(arguments[i], value, options);
        ++i;
    }
    return options;
}

} // namespace bench
