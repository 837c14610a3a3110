# Coverage-guided fuzzing with libFuzzer (clang only), off by default.
#
#   CXX=clang++ cmake -S . -B build/fuzz -G Ninja -DNP_FUZZ=ON && cmake --build build/fuzz
#   ctest --test-dir build/fuzz -R '^fuzz\.'          # NP_FUZZ_SECONDS per fuzzer (default 30)
#
# When NP_FUZZ is on, every target of the project is compiled with the fuzzer's coverage
# instrumentation and with AddressSanitizer and UndefinedBehaviorSanitizer, so that coverage
# and checks reach the libraries under test and not only the fuzz targets. This file is
# included before the components, since their add_compile_options and np_add_fuzzer calls
# must see it; run as a script (cmake -P) it is also the runner of one fuzz test.

if(CMAKE_SCRIPT_MODE_FILE)
  # ---- script mode: one fuzz test -------------------------------------------------------
  # Inputs: FUZZER, SEEDS (repository folder), CORPUS (working copy in the build folder),
  # SECONDS. The working copy keeps what earlier runs found, so each run starts further on;
  # the seeds are copied in so that the working copy alone is the whole corpus.
  foreach(required FUZZER SEEDS CORPUS SECONDS)
    if(NOT DEFINED ${required})
      message(FATAL_ERROR "Fuzzing.cmake run as a script needs -D${required}=...")
    endif()
  endforeach()
  file(MAKE_DIRECTORY "${CORPUS}")
  file(GLOB seedFiles LIST_DIRECTORIES false "${SEEDS}/*")
  if(seedFiles)
    file(COPY ${seedFiles} DESTINATION "${CORPUS}")
  endif()
  set(command "${FUZZER}" -max_total_time=${SECONDS} -timeout=1 -rss_limit_mb=2048 -detect_leaks=1
              -print_final_stats=1 "${CORPUS}" "${SEEDS}")
  list(JOIN command " " shown)
  message(STATUS "running: ${shown}")
  # A crash, leak, sanitizer report, timeout or memory overrun ends libFuzzer with a non-zero
  # status and leaves crash-*/leak-*/timeout-* next to the working copy.
  execute_process(COMMAND ${command} WORKING_DIRECTORY "${CORPUS}/.." RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "the fuzzer failed (status ${status}); its reproducer is in ${CORPUS}/..")
  endif()
  return()
endif()

# ---- configure mode ---------------------------------------------------------------------
option(NP_FUZZ "Build the libFuzzer fuzz targets (clang) and register them as tests fuzz.<name>" OFF)
set(NP_FUZZ_SECONDS 30 CACHE STRING "Run time of each fuzz test, in seconds")

if(NP_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "NP_FUZZ needs clang (libFuzzer); configure with CXX=clang++")
  endif()
  if(NP_SANITIZER STREQUAL "thread")
    message(FATAL_ERROR "NP_FUZZ brings AddressSanitizer, which cannot be combined with NP_SANITIZER=thread")
  endif()
  if(NOT NP_SANITIZER STREQUAL "address")
    add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
    # The components treat a non-empty NP_SANITIZER as "the sanitizer runtime lives in the
    # executable", which is what a shared library of this build needs to link.
    set(NP_SANITIZER address)
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# np_add_fuzzer(name source... [LINK library...])
# Builds the fuzz target `name` and registers the test fuzz.<name>, which runs it for
# NP_FUZZ_SECONDS on the seeds in the folder corpus/ beside the calling CMakeLists'
# fuzz/ folder: fuzz/corpus/<seed folder>, named by the SEEDS argument or, by default,
# the lower-case name without its "Fuzzer" suffix.
function(np_add_fuzzer name)
  cmake_parse_arguments(PARSE_ARGV 1 fuzz "" "SEEDS" "LINK")
  if(NOT fuzz_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "np_add_fuzzer(${name}) names no source")
  endif()
  if(NOT fuzz_SEEDS)
    string(REGEX REPLACE "Fuzzer$" "" fuzz_SEEDS "${name}")
    string(TOLOWER "${fuzz_SEEDS}" fuzz_SEEDS)
  endif()
  set(seeds "${CMAKE_CURRENT_SOURCE_DIR}/fuzz/corpus/${fuzz_SEEDS}")
  if(NOT IS_DIRECTORY "${seeds}")
    message(FATAL_ERROR "np_add_fuzzer(${name}): no seed folder ${seeds}")
  endif()

  add_executable(${name} ${fuzz_UNPARSED_ARGUMENTS})
  target_compile_options(${name} PRIVATE -fsanitize=fuzzer)
  target_link_options(${name} PRIVATE -fsanitize=fuzzer,address,undefined)
  target_link_libraries(${name} PRIVATE np_options ${fuzz_LINK})

  set(work "${CMAKE_CURRENT_BINARY_DIR}/fuzz-${name}")
  add_test(NAME fuzz.${name}
           COMMAND ${CMAKE_COMMAND} -DFUZZER=$<TARGET_FILE:${name}> -DSEEDS=${seeds} -DCORPUS=${work}/corpus
                   -DSECONDS=${NP_FUZZ_SECONDS} -P ${CMAKE_CURRENT_FUNCTION_LIST_FILE})
  # libFuzzer stops at the first input after the time is up; an input may take up to
  # its one-second limit, and start-up and the corpus reading come on top.
  math(EXPR limit "${NP_FUZZ_SECONDS} + 120")
  # Alone on the machine: the one-second limit per input is wall time, and a fuzzer that shares
  # two cores with a parallel test run can be held off the processor for that long.
  set_tests_properties(fuzz.${name} PROPERTIES TIMEOUT ${limit} LABELS fuzz RUN_SERIAL TRUE)
endfunction()
