#include "support/scripted_hardware.h"

#include <csignal>

namespace {

namespace dt = xrprocdetector::detail;

class ScriptedMachine : public dt::LiveMachine {
 public:
  dt::CpuidRegisters cpuid(std::uint32_t leaf, std::uint32_t subleaf) override {
    ++scripted::cpuidQueries;
    const auto found = scripted::cpuid.find({leaf, subleaf});
    return found == scripted::cpuid.end() ? dt::CpuidRegisters{0, 0, 0, 0} : found->second;
  }

  std::uint32_t backdoor() override {
    ++scripted::backdoorQueries;
    if (scripted::backdoor == scripted::Backdoor::kMagic) return dt::kVmwareMagic;
    if (scripted::backdoor == scripted::Backdoor::kOtherAnswer) return 0x12345678;
    std::raise(SIGSEGV);  // as the port access faults: the probe's handler must take it
    return 0;
  }

  bool affinity(xrprocdetector::CpuSet* set) override {
    if (scripted::affinityUnreadable) return false;
    *set = scripted::affinity;
    return true;
  }

  // A pinning that names none of the allowed processors is refused, as the
  // kernel refuses it.
  bool pin(const xrprocdetector::CpuSet& set) override {
    if ((set & scripted::allowed).empty()) return false;
    scripted::affinity = set & scripted::allowed;
    return true;
  }
};

// The main thread's machine for the whole run.
ScriptedMachine machine;
const dt::MachineScope scope(machine);

}  // namespace
