#pragma once

// Counts the process's heap allocations and releases while switched on; off,
// it costs one relaxed load per call.

#include <cstdint>

namespace quilbench {

struct AllocationCount {
    std::int64_t allocations = 0;
    std::int64_t releases = 0;
};

void countAllocations(bool on);
AllocationCount allocationCount();

} // namespace quilbench
