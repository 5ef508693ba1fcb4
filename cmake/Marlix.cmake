# Shared build rules: warnings, and how a kernel module (.ko) is built.

# Rebuilds of the same sources (several checkouts, several presets) come from ccache when it is
# installed; nothing depends on it.
find_program(MARLIX_CCACHE ccache)
if(MARLIX_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_C_COMPILER_LAUNCHER ${MARLIX_CCACHE})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${MARLIX_CCACHE})
endif()

set(MARLIX_WARNINGS -Wall -Wextra)
set(MARLIX_MODULE_STUB ${CMAKE_CURRENT_LIST_DIR}/../host/kernel/src/module_stub.c)

function(marlix_warnings target)
  target_compile_options(${target} PRIVATE ${MARLIX_WARNINGS})
endfunction()

# marlix_add_module(<file-name> SOURCES ... [LIBS ...] [INCLUDES ...] [HEADERS <target>])
#
# Builds <file-name>.ko, a shared object the emulated kernel loads with insmod. The module's
# name in the kernel is the file name with '-' turned into '_', as Linux does (KBUILD_MODNAME).
# Module code is kernel code: no exceptions, no RTTI, no unique symbols that would keep a
# module's data alive after it is unloaded.
#
# HEADERS names the one target whose include paths the module's sources see (besides INCLUDES);
# the kernel and the LIBS are then linked for their symbols only, so the host-side headers those
# libraries publish are not reachable from module code.
function(marlix_add_module file_name)
  cmake_parse_arguments(M "" "HEADERS" "SOURCES;LIBS;INCLUDES" ${ARGN})
  string(REPLACE "-" "_" modname ${file_name})
  set(target module_${modname})
  add_library(${target} MODULE ${M_SOURCES} ${MARLIX_MODULE_STUB})
  set_target_properties(${target} PROPERTIES
    PREFIX "" SUFFIX ".ko" OUTPUT_NAME ${file_name}
    LIBRARY_OUTPUT_DIRECTORY ${MARLIX_MODULE_DIR})
  target_compile_definitions(${target} PRIVATE MODULE KBUILD_MODNAME="${modname}")
  target_compile_options(${target} PRIVATE ${MARLIX_WARNINGS}
    $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-gnu-unique>)
  target_include_directories(${target} PRIVATE ${M_INCLUDES})
  if(M_HEADERS)
    target_link_libraries(${target} PRIVATE ${M_HEADERS})
    foreach(lib marlix_kernel ${M_LIBS})
      target_link_libraries(${target} PRIVATE $<TARGET_FILE:${lib}>)
      add_dependencies(${target} ${lib})
    endforeach()
  else()
    target_link_libraries(${target} PRIVATE marlix_kernel ${M_LIBS})
  endif()
  # -Bsymbolic: a module's references to its own globals bind inside the module, never to a
  # same-named symbol of the host process (the C library has an init_module, for one).
  target_link_options(${target} PRIVATE -Wl,--no-undefined -Wl,-Bsymbolic)
  set_property(GLOBAL APPEND PROPERTY MARLIX_MODULE_TARGETS ${target})
endfunction()

# marlix_add_test(<name> SOURCES ... LIBS ...): one GoogleTest binary registered with CTest.
function(marlix_add_test name)
  cmake_parse_arguments(T "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  marlix_warnings(${name})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gtest GTest::gtest_main Threads::Threads)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60
    PROPERTIES ENVIRONMENT "MARLIX_MODULE_PATH=${MARLIX_MODULE_DIR}")
endfunction()

find_package(Threads REQUIRED)
