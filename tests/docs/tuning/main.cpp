#include <mqtt/client.hpp>

int main() {
    zym::common::Uuid const id(7);
#include "tuning/1.inc"
#include "tuning/2.inc"
}
