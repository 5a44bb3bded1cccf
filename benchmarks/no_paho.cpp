// Takes the place of paho_client.cpp where Paho is not installed.

#include "benchmark_client.hpp"

namespace bench {

std::unique_ptr<ClientLibrary> pahoLibrary() {
    return nullptr;
}

} // namespace bench
