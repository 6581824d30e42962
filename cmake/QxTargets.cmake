# The project's build vocabulary: every folder declares its targets with these functions, so that flags,
# include directories, sanitizers and test time-outs are decided here alone.

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")

find_package(Threads REQUIRED)

add_library(qx_flags INTERFACE)
target_compile_options(qx_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wformat=2 -Werror)
target_include_directories(qx_flags INTERFACE "${CMAKE_SOURCE_DIR}" "${CMAKE_SOURCE_DIR}/platform/guard")

if(QX_WINDOWS)
  # 0x0601: the oldest Windows that the product runs on. <security.h> wants to be told for
  # which side it is included. The toolchain's own headers warn under -Wpedantic.
  target_compile_definitions(qx_flags INTERFACE _WIN32_WINNT=0x0601 WIN32_LEAN_AND_MEAN NOMINMAX
    SECURITY_WIN32)
  target_compile_options(qx_flags INTERFACE -Wno-pedantic)
  file(MAKE_DIRECTORY "${CMAKE_BINARY_DIR}/system-include")
  if(NOT EXISTS "${CMAKE_BINARY_DIR}/system-include/boost")
    file(CREATE_LINK /usr/include/boost "${CMAKE_BINARY_DIR}/system-include/boost" SYMBOLIC)
  endif()
  target_include_directories(qx_flags SYSTEM INTERFACE "${CMAKE_BINARY_DIR}/system-include")
else()
  target_include_directories(qx_flags INTERFACE "${CMAKE_SOURCE_DIR}/platform/include")
  # Modules are loaded and unloaded by name while the program runs; unique symbols would pin them for ever.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-fno-gnu-unique)
    # Nobody replaces a function of a module, as nobody can on the target.
    add_compile_options(-fno-semantic-interposition -fno-plt)
  endif()
endif()

if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  target_compile_options(qx_flags INTERFACE -Wthread-safety -Wthread-safety-beta)
endif()

if(QX_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_compile_definitions(_GLIBCXX_ASSERTIONS)
  add_link_options(-fsanitize=address,undefined)
elseif(QX_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
  # GCC cannot see fences under this sanitizer; the reader/writer lock headers contain one.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-Wno-tsan)
  endif()
elseif(QX_SANITIZE)
  message(FATAL_ERROR "QX_SANITIZE is '${QX_SANITIZE}'; it can be empty, address or thread")
endif()

if(QX_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# qx_object_library(<target> SOURCES ... [LINK ...]): object files with the project's flags.
function(qx_object_library target)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINK" ${ARGN})
  add_library(${target} OBJECT ${ARG_SOURCES})
  target_link_libraries(${target} PUBLIC qx_flags Threads::Threads ${ARG_LINK})
endfunction()

# qx_program(<name> SOURCES ... [LINK ...] [RUNTIME_APART])
# RUNTIME_APART: on Windows the runtime library is not linked in. A program that has parts of the layer inside needs
# this, since the test host then leads its calls of the system to the clock, the fault points and the counts; the
# runtime library's own waits and objects have no place there.
function(qx_program name)
  cmake_parse_arguments(ARG "RUNTIME_APART" "" "SOURCES;LINK" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE qx_flags Threads::Threads ${ARG_LINK})
  if(QX_WINDOWS AND ARG_RUNTIME_APART)
    qx_runtime_beside_programs()
  elseif(QX_WINDOWS)
    target_link_options(${name} PRIVATE -static)
  endif()
endfunction()

# The runtime library's DLLs, in the folder of the programs.
function(qx_runtime_beside_programs)
  file(MAKE_DIRECTORY "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}")
  foreach(library libgcc_s_dw2-1.dll libstdc++-6.dll libwinpthread-1.dll)
    execute_process(COMMAND "${CMAKE_CXX_COMPILER}" "-print-file-name=${library}" OUTPUT_VARIABLE path
                    OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    file(CREATE_LINK "${path}" "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/${library}" SYMBOLIC)
  endforeach()
endfunction()

# qx_test(<name> SOURCES ... [LINK ...] [LABELS ...] [TIMEOUT seconds] [DEPENDS targets...] [RUNTIME_APART])
# One gtest program; each of its tests is a test of ctest with its own process and deadline.
function(qx_test name)
  cmake_parse_arguments(ARG "RUNTIME_APART" "TIMEOUT" "SOURCES;LINK;LABELS;DEPENDS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 60)
  endif()
  if(NOT ARG_LABELS)
    set(ARG_LABELS unit)
  endif()
  set(runtime)
  if(ARG_RUNTIME_APART)
    set(runtime RUNTIME_APART)
  endif()
  if(QX_WINDOWS)
    list(APPEND ARG_SOURCES "${CMAKE_SOURCE_DIR}/tests/support/begun_threads.cpp")
    if(ARG_RUNTIME_APART)
      list(APPEND ARG_SOURCES "${CMAKE_SOURCE_DIR}/tests/support/watched_main_thread.cpp")
    endif()
  endif()
  qx_program(${name} SOURCES ${ARG_SOURCES} LINK ${ARG_LINK} gtest_main ${runtime})
  if(ARG_DEPENDS)
    add_dependencies(${name} ${ARG_DEPENDS})
  endif()
  # Windows programs can be built where no Wine is: their tests are listed when they are run.
  set(mode POST_BUILD)
  if(QX_WINDOWS)
    set(mode PRE_TEST)
  endif()
  gtest_discover_tests(${name} TEST_PREFIX "${name}/" DISCOVERY_TIMEOUT 60 DISCOVERY_MODE ${mode}
                       PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS "${ARG_LABELS}")
endfunction()

# What ./qx bench and ./qx fuzz build.
add_custom_target(benchmarks)
add_custom_target(fuzzers)

# qx_benchmark(<name> SOURCES ... [LINK ...]): in builds with QX_BENCH.
function(qx_benchmark name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINK" ${ARGN})
  find_package(benchmark REQUIRED)
  qx_program(${name} SOURCES ${ARG_SOURCES} LINK ${ARG_LINK} benchmark::benchmark)
  add_dependencies(benchmarks ${name})
endfunction()

# qx_fuzzer(<name> SOURCES ... [LINK ...]): a libFuzzer program with QX_FUZZ, and in every native build a plain
# test that replays the seeds of fuzz/corpus/<name>/.
function(qx_fuzzer name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINK" ${ARGN})
  if(QX_FUZZ)
    qx_program(${name} SOURCES ${ARG_SOURCES} LINK ${ARG_LINK})
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
    add_dependencies(fuzzers ${name})
  else()
    qx_program(${name}_replay SOURCES ${ARG_SOURCES} "${CMAKE_SOURCE_DIR}/fuzz/replay_main.cpp" LINK ${ARG_LINK})
    add_test(NAME ${name}_replay COMMAND ${name}_replay "${CMAKE_SOURCE_DIR}/fuzz/corpus/${name}")
    set_tests_properties(${name}_replay PROPERTIES TIMEOUT 60 LABELS fuzz)
  endif()
endfunction()
