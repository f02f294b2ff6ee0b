// Load-time work of the library: the processor-feature flag recorded when the module loads.
#pragma once

namespace vlkr::frame {

// Asks vlkcore for the feature mask and records whether it has both VLK_CPU_SSSE3 and
// VLK_CPU_MOVBE set.
void recordCpuFeatures() noexcept;

// The recorded flag, 0 or 1. Nothing in the library reads it: every operation runs the same
// generic code whatever its value. Tests use it to see what the load recorded.
int cpuFlag() noexcept;

}  // namespace vlkr::frame
