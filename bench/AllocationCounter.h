#pragma once

#include <cstdint>

#include <benchmark/benchmark.h>

// Heap traffic seen by a global operator new, so a benchmark can show how often it copies.
namespace orin::bench {

struct Allocations {
  std::uint64_t count = 0;
  std::uint64_t bytes = 0;
};

// Totals for the calling thread since it started.
Allocations allocations();

// Adds per-iteration "allocs" and "alloc_bytes" counters for the traffic since `before`.
void reportAllocations(benchmark::State& state, const Allocations& before);

}  // namespace orin::bench
