// The seams between the detectors and the machine, and the VMware probe's
// fault guard.
#include "platform/machine.h"

#include <setjmp.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <mutex>

namespace xrprocdetector {
namespace detail {

namespace {

// The innermost stand-in of this thread; the scope that made it owns it.
thread_local MachineStandIn* activeStandIn = nullptr;

// The one jump buffer of the VMware probe, the thread whose port access it
// guards (0 outside that span) and the SIGSEGV action in place before it,
// which takes every other fault. All of them are the probe lock's.
jmp_buf jmpbuf;
std::atomic<pid_t> probingThread{0};
static_assert(std::atomic<pid_t>::is_always_lock_free, "read in a signal handler");
struct sigaction previous;
std::atomic<bool> previousReset{false};  // by its SA_RESETHAND
std::recursive_mutex probeLock;
int keepers = 0;  // SignalStates alive, which give the action before back

// A fault that is not the probe's, handled as the action before the probe
// would have handled it. SIG_DFL, and SIG_IGN for a real fault, take the
// default action: reset, and raised again to be taken once this returns.
void passOn(int signal, siginfo_t* info, void* context) {
  struct sigaction was = previous;
  if (previousReset) was.sa_handler = SIG_DFL;                  // SA_RESETHAND has taken it
  if (was.sa_handler == SIG_IGN && info->si_code <= 0) return;  // sent, not a fault
  if (was.sa_handler == SIG_DFL || was.sa_handler == SIG_IGN) {
    ::signal(SIGSEGV, SIG_DFL);
    raise(SIGSEGV);
    return;
  }
  if ((was.sa_flags & SA_RESETHAND) != 0) previousReset = true;
  sigset_t before;
  pthread_sigmask(SIG_BLOCK, &was.sa_mask, &before);
  sigemptyset(&was.sa_mask);
  sigaddset(&was.sa_mask, SIGSEGV);
  if ((was.sa_flags & SA_NODEFER) != 0) pthread_sigmask(SIG_UNBLOCK, &was.sa_mask, nullptr);
  (was.sa_flags & SA_SIGINFO) != 0 ? was.sa_sigaction(signal, info, context)
                                   : was.sa_handler(signal);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void segfault_sigaction(int signal, siginfo_t* info, void* context) {
  if (probingThread.load() == gettid()) longjmp(jmpbuf, 1);
  passOn(signal, info, context);
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
  const std::lock_guard<std::recursive_mutex> lock(probeLock);
  volatile std::uint64_t answer = 0;
  struct sigaction action;
  std::memset(&action, 0, sizeof action);
  sigemptyset(&action.sa_mask);
  action.sa_sigaction = segfault_sigaction;
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGSEGV, nullptr, &previous);
  previousReset = false;
  sigaction(SIGSEGV, &action, nullptr);
  sigset_t segv, mask;
  sigemptyset(&segv);
  sigaddset(&segv, SIGSEGV);
  // _setjmp does not save the signal mask: after a fault SIGSEGV stays
  // blocked in this thread, as the handler left it. Until then it is
  // unblocked for the port access alone, so that its fault is taken here.
  if (_setjmp(jmpbuf) == 0) {
    pthread_sigmask(SIG_UNBLOCK, &segv, &mask);
    probingThread = gettid();
    answer = queryBackdoor();
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
  }
  probingThread = 0;
  // The default disposition, not whatever the host had before the probe;
  // under a SignalState, which gives that back, the host's at once, so that
  // no fault of the host's other threads meets the default in between.
  if (keepers > 0)
    sigaction(SIGSEGV, &previous, nullptr);
  else
    signal(SIGSEGV, SIG_DFL);
  return answer == kVmwareMagic;
}

SignalState::SignalState() : lock_(probeLock) {
  ++keepers;
  sigaction(SIGSEGV, nullptr, &segv_);
  pthread_sigmask(SIG_SETMASK, nullptr, &mask_);
}

SignalState::~SignalState() {
  sigaction(SIGSEGV, &segv_, nullptr);
  pthread_sigmask(SIG_SETMASK, &mask_, nullptr);
  --keepers;
}

}  // namespace detail
}  // namespace xrprocdetector
