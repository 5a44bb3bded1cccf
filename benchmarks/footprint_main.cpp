// What clients take that are connected and do nothing, ours or those of the bare library. Prints
// what the process has without a client, with one, and with as many as it was told. Run through
// scripts/footprint.
#include "broker_process.hpp"
#include "our_client.hpp"
#include "raw_client.hpp"

#include <malloc.h>
#include <mosquittopp.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <list>
#include <string>
#include <thread>

namespace {

class IdleRawClient : public bench::RawClient {
public:
    explicit IdleRawClient(int port) { open(port); }
};

class IdleOurClient : public bench::OurClient {
public:
    explicit IdleOurClient(int port) : OurClient(port) { connect(); }
};

std::ptrdiff_t entriesOf(char const* folder) {
    return std::distance(std::filesystem::directory_iterator(folder),
                         std::filesystem::directory_iterator());
}

/// In kB, from the kernel's summary of this process's memory.
long memory(std::string const& kind) {
    std::ifstream summary("/proc/self/smaps_rollup");
    for (std::string word; summary >> word;) {
        long amount = 0;
        if (word == kind + ":" && summary >> amount) {
            return amount;
        }
    }
    return -1;
}

void report(int clients) {
    // What a connection is completed with happens after the broker's consent.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    std::printf("clients %d threads %td descriptors %td private %ld resident %ld heap %zu\n",
                clients, entriesOf("/proc/self/task"), entriesOf("/proc/self/fd") - 1,
                memory("Private_Dirty"), memory("Rss"), ::mallinfo2().uordblks);
    std::fflush(stdout);
}

template <class Client>
void measure(int port, int count) {
    report(0);
    std::list<Client> clients;
    clients.emplace_back(port);
    report(1);
    while (static_cast<int>(clients.size()) < count) {
        clients.emplace_back(port);
    }
    report(count);
}

int run(std::string const& kind, int count) {
    bench::BrokerProcess const broker(bench::BrokerProcess::Variant::SHIPPED);
    mosqpp::lib_init();
    if (kind == "ours") {
        measure<IdleOurClient>(broker.port(), count);
    } else if (kind == "raw") {
        measure<IdleRawClient>(broker.port(), count);
    } else {
        return 2;
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    try {
        if (argc != 3 || run(argv[1], std::stoi(argv[2])) != 0) {
            std::fputs("Usage: bench-footprint ours|raw CLIENTS\n", stderr);
            return 2;
        }
        return 0;
    } catch (std::exception const& error) {
        std::fprintf(stderr, "bench-footprint: %s\n", error.what());
        return 1;
    }
}
