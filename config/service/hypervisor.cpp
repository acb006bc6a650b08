#include "config/service/hypervisor.h"

#include <cstring>

#ifdef _MSC_VER
#include <intrin.h>
#else
#include <cpuid.h>
#endif

namespace config {

namespace {

struct Registers {
    unsigned eax, ebx, ecx, edx;
};

Registers cpuid(unsigned leaf) noexcept {
#ifdef _MSC_VER
    int values[4];
    __cpuid(values, static_cast<int>(leaf));
    return {static_cast<unsigned>(values[0]), static_cast<unsigned>(values[1]),
            static_cast<unsigned>(values[2]), static_cast<unsigned>(values[3])};
#else
    Registers r{};
    __cpuid(leaf, r.eax, r.ebx, r.ecx, r.edx);
    return r;
#endif
}

constexpr unsigned hypervisorBit = 1U << 31;      // leaf 1, ecx
constexpr unsigned mayCreatePartitions = 1U << 0; // leaf 0x40000003, ebx: only the host may

} // namespace

bool runsUnderHypervisor() noexcept {
    if ((cpuid(1).ecx & hypervisorBit) == 0) {
        return false;
    }
    const Registers vendor = cpuid(0x40000000);
    char name[12];
    std::memcpy(name, &vendor.ebx, 4);
    std::memcpy(name + 4, &vendor.ecx, 4);
    std::memcpy(name + 8, &vendor.edx, 4);
    return std::memcmp(name, "Microsoft Hv", sizeof name) != 0 ||
           (cpuid(0x40000003).ebx & mayCreatePartitions) == 0;
}

} // namespace config
