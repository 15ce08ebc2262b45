#include "AllocationCounter.h"

#include <cstdlib>
#include <new>

namespace {

// Per thread, so counting costs no atomic operation; benchmarks run on one thread.
thread_local orin::bench::Allocations totals;

}  // namespace

void* operator new(std::size_t size) {
  ++totals.count;
  totals.bytes += size;
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}

void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}

namespace orin::bench {

Allocations allocations() {
  return totals;
}

void reportAllocations(benchmark::State& state, const Allocations& before) {
  const Allocations now = totals;
  state.counters["allocs"] = benchmark::Counter(static_cast<double>(now.count - before.count),
                                                benchmark::Counter::kAvgIterations);
  state.counters["alloc_bytes"] =
      benchmark::Counter(static_cast<double>(now.bytes - before.bytes),
                         benchmark::Counter::kAvgIterations, benchmark::Counter::OneK::kIs1024);
}

}  // namespace orin::bench
