# How everything in the project is compiled and linked. What holds for all code alike (sanitizers,
# hardening, the linker) is set for the whole tree, so that no two targets can disagree on it;
# tallow_target(NAME) adds what the project asks of its own code: include root and warnings.

include(CheckPIESupported)
check_pie_supported(LANGUAGES C CXX)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

find_program(CCACHE ccache)
if(CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_C_COMPILER_LAUNCHER ${CCACHE})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
endif()

set(_optimised OFF)
if(CMAKE_BUILD_TYPE MATCHES "^(Release|RelWithDebInfo|MinSizeRel)$")
  set(_optimised ON)
endif()

# Warnings stop the build only with the compilers that every change is built with: a newer compiler
# that knows more warnings must not keep anybody from building a release.
set(_werror OFF)
if((CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION MATCHES "^12\\.")
   OR (CMAKE_CXX_COMPILER_ID STREQUAL "Clang" AND CMAKE_CXX_COMPILER_VERSION MATCHES "^14\\."))
  set(_werror ON)
endif()

option(TALLOW_WERROR "Treat warnings as errors" ${_werror})
option(TALLOW_HARDEN "Harden the programs (an optimised build)" ${_optimised})
option(TALLOW_LTO "Optimise at link time" OFF)
set(TALLOW_SANITIZE "" CACHE STRING "Sanitizers to build with, as -fsanitize= takes them")

# Paths in messages and debug information are relative to the repository, so that a build in another
# folder gives the same bytes; ccache hands the compiler relative paths already.
file(RELATIVE_PATH _upwards ${CMAKE_BINARY_DIR} ${CMAKE_SOURCE_DIR})
add_compile_options(-fdebug-prefix-map=${CMAKE_SOURCE_DIR}=.
  -fmacro-prefix-map=${CMAKE_SOURCE_DIR}/= -fmacro-prefix-map=${_upwards}=)
add_compile_definitions(_GLIBCXX_ASSERTIONS)
add_link_options(-Wl,--as-needed)

# A test program links in a fraction of the time with mold; releases keep the system's linker.
find_program(MOLD mold)
if(MOLD AND NOT _optimised)
  add_link_options(-fuse-ld=mold)
endif()

# Two thirds of the size and the speed of -O3, whose gain is in loops that this service does not have.
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG")

if(TALLOW_SANITIZE)
  # With line numbers only, and without optimising, which takes the compilers a third longer than the
  # tests gain: what the test command builds most of all. For the same reason the presets compile a
  # dozen files as one: most of a file's time goes into the headers that its neighbour reads, too.
  set(CMAKE_CXX_FLAGS_DEBUG "-O0 -g1")
  add_compile_options(-fsanitize=${TALLOW_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${TALLOW_SANITIZE})
endif()
if(TALLOW_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

if(TALLOW_HARDEN)
  add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3 -fstack-protector-strong
    -fstack-clash-protection)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|i[3-6]86)$")
    add_compile_options(-fcf-protection=full)
  elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
    add_compile_options(-mbranch-protection=standard)
  endif()
  add_link_options(-Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack -Wl,-z,separate-code)
endif()

if(TALLOW_LTO)
  include(CheckIPOSupported)
  check_ipo_supported(LANGUAGES CXX)
  set(CMAKE_INTERPROCEDURAL_OPTIMIZATION ON)
endif()

add_library(tallow_warnings INTERFACE)
target_compile_options(tallow_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wunused -Wformat=2 -Wno-format-nonliteral -Wcast-align -Wold-style-cast
  -Wnon-virtual-dtor -Woverloaded-virtual -Wsuggest-override -Wextra-semi -Wmissing-declarations
  # Plain -Wshadow also forbids to name a constructor's parameter after the member it fills.
  $<$<CXX_COMPILER_ID:GNU>:-Wshadow=local -Wduplicated-cond -Wlogical-op>
  # The macros of C libraries use what C++ lacks; GCC knows that they are not ours, clang does not.
  $<$<CXX_COMPILER_ID:Clang>:-Wno-c99-extensions -Wno-gnu-zero-variadic-macro-arguments>
  $<$<BOOL:${TALLOW_WERROR}>:-Werror>)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND (_optimised OR TALLOW_SANITIZE))
  # Guesses of the optimiser that are wrong about std::string and std::optional in GCC 12 (its bugs
  # 105651 and 80635). The sanitizers look for the same faults, and know.
  target_compile_options(tallow_warnings INTERFACE -Wno-restrict -Wno-maybe-uninitialized)
endif()

if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_UNITY_BUILD)
  # It takes what a source file has for itself for a header's when several are compiled as one.
  target_compile_options(tallow_warnings INTERFACE -Wno-subobject-linkage)
endif()

function(tallow_target name)
  target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}>)
  target_link_libraries(${name} PRIVATE $<BUILD_INTERFACE:tallow_warnings>)
endfunction()
