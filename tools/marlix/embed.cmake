# Turns a text file into a C++ source defining marlix::console::default_scenario().
# Usage: cmake -DINPUT=... -DOUTPUT=... -P embed.cmake
file(READ ${INPUT} hex HEX)
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
file(WRITE ${OUTPUT}.tmp
"// Generated from ${INPUT}; do not edit.\n"
"#include \"console.hpp\"\n"
"namespace marlix::console {\n"
"static const unsigned char kDefaultScenario[] = {${bytes} 0};\n"
"std::string_view default_scenario() {\n"
"    return {reinterpret_cast<const char *>(kDefaultScenario), sizeof kDefaultScenario - 1};\n"
"}\n"
"}  // namespace marlix::console\n")
file(COPY_FILE ${OUTPUT}.tmp ${OUTPUT} ONLY_IF_DIFFERENT)
file(REMOVE ${OUTPUT}.tmp)
