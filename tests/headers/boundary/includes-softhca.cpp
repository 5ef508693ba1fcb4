/* Kernel code that reaches for a host-side control header: must not compile. */
#include "marlix/softhca.hpp"
