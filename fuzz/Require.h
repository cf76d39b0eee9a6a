#pragma once

#include <cstdio>
#include <cstdlib>

// What must hold for every input: otherwise the fuzz target stops, and the input is kept.
#define REQUIRE(condition)                              \
  do {                                                  \
    if (!(condition)) {                                 \
      std::fprintf(stderr, "not so: %s\n", #condition); \
      std::abort();                                     \
    }                                                   \
  } while (false)
