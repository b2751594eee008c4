// The seams between the detectors and the machine, and the VMware probe's
// fault guard.
#include "platform/machine.h"

#include <setjmp.h>
#include <signal.h>
#include <unistd.h>

#include <cstring>

namespace xrprocdetector {
namespace detail {

namespace {

// The innermost stand-in of this thread; the scope that made it owns it.
thread_local MachineStandIn* activeStandIn = nullptr;

// The one jump buffer of the VMware probe and its fault handler.
jmp_buf jmpbuf;

void segfault_sigaction(int /*signal*/, siginfo_t* /*info*/, void* /*context*/) {
  longjmp(jmpbuf, 1);
}

}  // namespace

MachineStandIn::MachineStandIn() : previous_(activeStandIn) {
  activeStandIn = this;
}

MachineStandIn::~MachineStandIn() {
  activeStandIn = previous_;
}

MachineStandIn* MachineStandIn::active() {
  return activeStandIn;
}

CpuidRegisters queryCpuid(std::uint32_t leaf, std::uint32_t subleaf) {
  const MachineStandIn* standIn = activeStandIn;
  return standIn == nullptr ? cpuid(leaf, subleaf) : standIn->cpuid(leaf, subleaf);
}

std::uint32_t queryBackdoor() {
  const MachineStandIn* standIn = activeStandIn;
  return standIn == nullptr ? vmwareBackdoorVersion() : standIn->backdoor();
}

long querySysconf(int name) {
  const MachineStandIn* standIn = activeStandIn;
  return standIn == nullptr ? sysconf(name) : standIn->processorCount(name);
}

int queryGetAffinity(cpu_set_t* set) {
  const MachineStandIn* standIn = activeStandIn;
  return standIn == nullptr ? sched_getaffinity(0, sizeof *set, set) : standIn->getAffinity(set);
}

int querySetAffinity(const cpu_set_t* set) {
  MachineStandIn* standIn = activeStandIn;
  return standIn == nullptr ? sched_setaffinity(0, sizeof *set, set) : standIn->setAffinity(*set);
}

// Not inlined and not instrumented by AddressSanitizer: leaving a fault
// handler by longjmp would confuse the sanitizer's view of the stack.
__attribute__((noinline, no_sanitize_address)) bool guardedVmwareProbe() {
  volatile std::uint64_t answer = 0;
  struct sigaction action;
  std::memset(&action, 0, sizeof action);
  sigemptyset(&action.sa_mask);
  action.sa_sigaction = segfault_sigaction;
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGSEGV, &action, nullptr);
  // _setjmp does not save the signal mask: after a fault SIGSEGV stays
  // blocked in this thread, as the handler left it.
  if (_setjmp(jmpbuf) == 0) {
    answer = queryBackdoor();
  }
  // The default disposition, not whatever the host had before the probe.
  signal(SIGSEGV, SIG_DFL);
  return answer == kVmwareMagic;
}

SignalState::SignalState() {
  sigaction(SIGSEGV, nullptr, &segv_);
  pthread_sigmask(SIG_SETMASK, nullptr, &mask_);
}

SignalState::~SignalState() {
  sigaction(SIGSEGV, &segv_, nullptr);
  pthread_sigmask(SIG_SETMASK, &mask_, nullptr);
}

}  // namespace detail
}  // namespace xrprocdetector
