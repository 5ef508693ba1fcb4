// marlix: the operator console of the emulated host.
#include <iostream>

#include "console.hpp"

int main(int argc, char **argv) {
    return marlix::console::main(argc, argv, std::cout, std::cerr);
}
