// What a connected client holds that does nothing: memory, threads, descriptors. Each library is
// measured in a process of its own, whose heap nobody has used before.

#include "benchmark_broker.hpp"
#include "benchmark_client.hpp"
#include "heap.hpp"
#include "program.hpp"

#include <mosquittopp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using bench::ClientLibrary;

constexpr unsigned MORE_CLIENTS = 32;
constexpr double KIB = 1024;

/// What this process holds.
struct Resources {
    double heapKib;
    double residentKib;
    double threads;
    double descriptors;
};

double residentKib() {
    std::ifstream file("/proc/self/smaps_rollup");
    std::string word;
    while (file >> word && word != "Rss:") {
    }
    double value = 0;
    if (!(file >> value)) {
        throw std::runtime_error("/proc/self/smaps_rollup does not say the resident memory");
    }
    return value;
}

double entriesOf(char const* folder) {
    return static_cast<double>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

Resources resources() {
    return {static_cast<double>(bench::heapInUse()) / KIB, residentKib(),
            entriesOf("/proc/self/task"), entriesOf("/proc/self/fd")};
}

std::unique_ptr<bench::BenchmarkClient> connectedClient(ClientLibrary const& library, int port) {
    auto client = library.makeClient(port);
    client->connect();
    return client;
}

void measureHere(ClientLibrary const& library, int port, int repetition) {
    mosqpp::lib_init();
    Resources const none = resources();
    auto const first = connectedClient(library, port);
    Resources const one = resources();
    std::vector<std::unique_ptr<bench::BenchmarkClient>> more(MORE_CLIENTS);
    for (auto& client : more) {
        client = connectedClient(library, port);
    }
    Resources const all = resources();
    auto const print = [&](char const* figure, char const* unit, double value) {
        bench::print({"idle", "idle", figure, unit, library.name(), "", repetition, value});
    };
    print("threads of the only one", "", one.threads - none.threads);
    print("descriptors of the only one", "", one.descriptors - none.descriptors);
    print("threads of one more", "", (all.threads - one.threads) / MORE_CLIENTS);
    print("descriptors of one more", "", (all.descriptors - one.descriptors) / MORE_CLIENTS);
    print("heap of one more", "KiB", (all.heapKib - one.heapKib) / MORE_CLIENTS);
    print("resident memory of one more", "KiB", (all.residentKib - one.residentKib) / MORE_CLIENTS);
}

[[noreturn]] void measureAndEnd(ClientLibrary const& library, int port, int repetition) {
    try {
        measureHere(library, port, repetition);
        ::_exit(0);
    } catch (std::exception const& error) {
        std::fprintf(stderr, "%s: %s\n", library.name(), error.what());
        ::_exit(1);
    }
}

/// This process has only one thread, so that the child may do anything.
void measureInChild(ClientLibrary const& library, int port, int repetition) {
    pid_t const child = ::fork();
    if (child == 0) {
        measureAndEnd(library, port, repetition);
    }
    int status = 1;
    if (child < 0 || ::waitpid(child, &status, 0) != child || status != 0) {
        throw std::runtime_error(std::string("no figures of ") + library.name());
    }
}

void run(bench::Options const& options) {
    if (!bench::isWanted(options, "idle", "idle")) {
        return;
    }
    bench::pinToOneProcessor();
    bench::printConditions("idle", options, "");
    bench::BenchmarkBroker const broker(bench::BrokerKind::NODELAY);
    std::vector<std::unique_ptr<ClientLibrary>> libraries;
    libraries.push_back(bench::rawLibrary());
    libraries.push_back(bench::ourLibrary());
    if (auto paho = bench::pahoLibrary(); paho && !options.quick) { // it connects slowly
        libraries.push_back(std::move(paho));
    }
    for (int repetition = 0; repetition < options.repetitions; ++repetition) {
        for (auto const& library : libraries) {
            measureInChild(*library, broker.port(), repetition);
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    return bench::runProgram(argc, argv, 3, run);
}
