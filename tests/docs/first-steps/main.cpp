#include <mqtt/client.hpp>
#include <mqtt/payloads.hpp>
#include <mqtt/topic.hpp>

#include <iostream>

int main() {
#include "first-steps/1.inc"
#include "first-steps/2.inc"
#include "first-steps/3.inc"
#include "first-steps/4.inc"
#include "first-steps/5.inc"
    std::cout << result << '\n';
}
