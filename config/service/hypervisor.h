// Whether this Windows runs in a virtual machine.
#pragma once

namespace config {

// True when the processor reports a hypervisor and this Windows is its guest. Where Hyper-V or
// virtualisation-based security is on, Windows itself sits on a hypervisor as its host; that counts
// as no virtual machine.
bool runsUnderHypervisor() noexcept;

} // namespace config
