# Warnings, sanitizers and visibility shared by every target of the project.
option(NP_WERROR "Treat compiler warnings as errors" OFF)
set(NP_SANITIZER "" CACHE STRING "Sanitizer build: empty, 'address' (with undefined behaviour) or 'thread'")

add_library(np_options INTERFACE)
target_compile_options(np_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor)
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  # The lock annotations in BAS/ThreadAnnotations.h are checked by clang only.
  target_compile_options(np_options INTERFACE -Wthread-safety)
endif()
if(NP_WERROR)
  target_compile_options(np_options INTERFACE -Werror)
endif()

if(NP_SANITIZER STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(NP_SANITIZER STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT NP_SANITIZER STREQUAL "")
  message(FATAL_ERROR "NP_SANITIZER must be empty, 'address' or 'thread', not '${NP_SANITIZER}'")
endif()

# Adds a GoogleTest executable and registers its cases with CTest.
function(np_add_test name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE np_options GTest::gtest GTest::gtest_main)
  gtest_discover_tests(${name} TEST_PREFIX "${name}." DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
endfunction()
