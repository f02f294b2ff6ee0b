// Module entry: runs once when the loader maps the library and records the CPU flag.
#include "module_entry.h"

#include "vlkcore.h"

namespace vlkr::frame {
namespace {

constexpr unsigned long long kFlagFeatures = VLK_CPU_SSSE3 | VLK_CPU_MOVBE;  // both must be present

// The library's only mutable global: written once at load, before any operation can run.
int gCpuFlag = 0;

__attribute__((constructor)) void onProcessAttach() { recordCpuFeatures(); }

}  // namespace

void recordCpuFeatures() noexcept
{
    const unsigned long long mask = vlkGetEnabledCpuFeatures();
    gCpuFlag = (mask & kFlagFeatures) == kFlagFeatures ? 1 : 0;
}

int cpuFlag() noexcept { return gCpuFlag; }

}  // namespace vlkr::frame
