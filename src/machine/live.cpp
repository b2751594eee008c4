// The calling thread's machine, this machine's instructions and counts, and
// the VMware probe's fault guard.
#include <fcntl.h>
#include <sched.h>
#include <setjmp.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

#include <atomic>
#include <cstring>
#include <mutex>
#include <new>

#include "machine/machine.h"

namespace xrprocdetector {
namespace detail {

namespace {

// The calling thread's innermost scope's machine; its scope owns it.
thread_local Machine* current = nullptr;

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
// A fork never leaves the lock held in the child: the forking thread takes
// it first, and the child, whose one thread that is, starts a new one.
[[maybe_unused]] const int forkSafe =
    pthread_atfork([] { probeLock.lock(); }, [] { probeLock.unlock(); },
                   [] { new (&probeLock) std::recursive_mutex(); });

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

Machine& machine() {
  // No state: the live machine holds nothing of its own.
  static LiveMachine live;
  return current != nullptr ? *current : live;
}

MachineScope::MachineScope(Machine& m) : previous_(current) {
  current = &m;
}

MachineScope::~MachineScope() {
  current = previous_;
}

CpuinfoStream LiveMachine::cpuinfo() {
  CpuinfoStream s;
  s.fd = ::open("/proc/cpuinfo", O_RDONLY | O_CLOEXEC);
  // A scan of a file that cannot be read never ends: say so instead. A
  // byte read at its start, which the scan reads again, tells.
  char byte = 0;
  if (!strict_ || (s.fd >= 0 && ::pread(s.fd, &byte, 1, 0) >= 0)) return s;
  const int why = errno;
  if (s.fd >= 0) ::close(s.fd);
  throw Missing{std::string("cannot read /proc/cpuinfo (") + std::strerror(why) + ")"};
}

CpuidRegisters LiveMachine::cpuid(std::uint32_t leaf, std::uint32_t subleaf) {
  return detail::cpuid(leaf, subleaf);
}

std::uint32_t LiveMachine::backdoor() {
  return vmwareBackdoorVersion();
}

long LiveMachine::processorCount(int name) {
  return sysconf(name);
}

// The affinity at its full size, as large as the kernel's limit; the
// kernel's mask is words of 64 bits, processor N bit N % 64 of word N / 64,
// as a set's own bits are.
bool LiveMachine::affinity(CpuSet* set) {
  xrpd_cpuset words{};
  if (sched_getaffinity(0, sizeof words.bits, reinterpret_cast<cpu_set_t*>(words.bits)) != 0)
    return false;
  *set = CpuSet::fromC(words);
  return true;
}

int LiveMachine::keep(const std::string& path) {
  return ::open(("/" + path).c_str(), O_RDONLY | O_CLOEXEC);
}

bool LiveMachine::pin(const CpuSet& set) {
  const std::uint64_t* words = set.c().bits;
  return sched_setaffinity(0, sizeof set.c().bits, reinterpret_cast<const cpu_set_t*>(words)) == 0;
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
  previousReset = false;
  sigaction(SIGSEGV, &action, &previous);
  sigset_t segv, mask;
  sigemptyset(&segv);
  sigaddset(&segv, SIGSEGV);
  // _setjmp does not save the signal mask: after a fault SIGSEGV stays
  // blocked in this thread, as the handler left it. Until then it is
  // unblocked for the port access alone, so that its fault is taken here.
  if (_setjmp(jmpbuf) == 0) {
    pthread_sigmask(SIG_UNBLOCK, &segv, &mask);
    probingThread = gettid();
    answer = machine().backdoor();
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
  }
  probingThread = 0;
  // The default disposition, not whatever the host had before the probe;
  // under a SignalState the host's, given back at once, but only in place of
  // the guard's own handler: one that another thread put there meanwhile
  // stays.
  struct sigaction now;
  if (keepers == 0) signal(SIGSEGV, SIG_DFL);
  if (keepers > 0 && sigaction(SIGSEGV, &previous, &now) == 0 &&
      now.sa_sigaction != segfault_sigaction)
    sigaction(SIGSEGV, &now, nullptr);
  return answer == kVmwareMagic;
}

SignalState::SignalState() : lock_(probeLock) {
  ++keepers;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask_);
}

SignalState::~SignalState() {
  pthread_sigmask(SIG_SETMASK, &mask_, nullptr);
  --keepers;
}

}  // namespace detail
}  // namespace xrprocdetector
