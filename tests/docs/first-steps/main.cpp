#include <mqtt/client.hpp>
#include <mqtt/payloads.hpp>
#include <mqtt/topic.hpp>

#include <iostream>

namespace {

#include "first-steps/4.inc"

} // namespace

int main() {
#include "first-steps/1.inc"
#include "first-steps/2.inc"
#include "first-steps/3.inc"
    StatusWatch const watch(client, tank);
    std::cout << result << '\n';
}
