#include <mqtt/connection_options.hpp>

int main() {
#include "limits/1.inc"
}
