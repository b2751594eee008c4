// The machine as the detectors see it: CPUID, the VMware port, the
// processor counts and the calling thread's affinity. Each call asks the
// calling thread's stand-in first (one thread-local pointer test) and the
// machine otherwise, so a snapshot replays through the same calls the live
// machine answers.
#ifndef XRPROCDETECTOR_SRC_PLATFORM_MACHINE_H
#define XRPROCDETECTOR_SRC_PLATFORM_MACHINE_H

#include <sched.h>
#include <signal.h>

#include <cstdint>
#include <mutex>

#include "platform/hardware.h"

namespace xrprocdetector {
namespace detail {

// Something that answers in the machine's place, on the thread that
// installed it (a snapshot replay).
class MachineStandIn {
 public:
  virtual CpuidRegisters cpuid(std::uint32_t leaf, std::uint32_t subleaf) const = 0;
  // The backdoor's EBX: kVmwareMagic for VMware, anything else otherwise.
  virtual std::uint32_t backdoor() const = 0;
  virtual long processorCount(int name) const = 0;  // -1 when unknown
  virtual int getAffinity(cpu_set_t* set) const = 0;
  virtual int setAffinity(const cpu_set_t& set) = 0;

  // The innermost stand-in of the calling thread, or null.
  static MachineStandIn* active();

 protected:
  // Installs this stand-in for the calling thread until it is destroyed.
  // Stand-ins end in the reverse order of their creation.
  MachineStandIn();
  ~MachineStandIn();
  MachineStandIn(const MachineStandIn&) = delete;
  MachineStandIn& operator=(const MachineStandIn&) = delete;

 private:
  MachineStandIn* previous_;
};

CpuidRegisters queryCpuid(std::uint32_t leaf, std::uint32_t subleaf);
std::uint32_t queryBackdoor();  // the port access; faults outside VMware
long querySysconf(int name);
int queryGetAffinity(cpu_set_t* set);  // sched_getaffinity(0, 128, set)
int querySetAffinity(const cpu_set_t* set);

// The VMware probe under its fault guard: a SIGSEGV handler for the span of
// one port access, left by a non-local jump, with SIGSEGV unblocked in the
// calling thread for that access alone; then SIGSEGV's disposition is set to
// the default, whatever it was (under a SignalState, which gives the one
// before back, to that one at once). Faults that are not the probe's (of other
// threads, or outside the access) go to the action in place before. After
// a fault, SIGSEGV stays blocked in the calling thread. One probe at a time
// in the process, under the probe lock. True when the port answered with
// the magic.
bool guardedVmwareProbe();

// What guardedVmwareProbe changes, kept so that it can be given back: the
// SIGSEGV disposition and the thread's signal mask. It holds the probe lock
// (recursive) while it lives, so that no other thread's probe runs between
// the keeping and the giving back.
class SignalState {
 public:
  SignalState();
  ~SignalState();
  SignalState(const SignalState&) = delete;
  SignalState& operator=(const SignalState&) = delete;

 private:
  std::lock_guard<std::recursive_mutex> lock_;
  struct sigaction segv_;
  sigset_t mask_;
};

}  // namespace detail
}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_SRC_PLATFORM_MACHINE_H
