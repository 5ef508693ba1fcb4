// Options every fuzz target gives its sanitizers.
//
// libFuzzer pulls the C++ library in ahead of the shared sanitizer runtime; the runtime still
// intercepts malloc and operator new through symbol lookup, so its link-order check is off.
extern "C" __attribute__((used, visibility("default"))) const char *__asan_default_options() {
    return "verify_asan_link_order=0";
}
