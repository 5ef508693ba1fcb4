// The adaptor path: the test drives the module's entry points through the provider table that the
// module registered with the stack's verbs core, as an upper-layer protocol does.
#include "perftest/transport.hpp"

namespace marlix::perftest {

std::unique_ptr<Endpoint> make_adaptor_endpoint(std::string &why_not) {
    why_not =
        "The adaptor path is not available yet: the module's queue pairs and data path are not in this "
        "build. "
        "Run the test on VAPI with --direct.";
    return nullptr;
}

}  // namespace marlix::perftest
