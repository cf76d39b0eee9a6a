#pragma once

#include <cstddef>
#include <cstdint>

// The entry point that every fuzz target defines; libFuzzer calls it by its name. Returns 0.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
