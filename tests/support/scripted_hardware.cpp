#include "support/scripted_hardware.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <signal.h>

#include <csignal>
#include <cstring>
#include <map>

namespace {

std::map<std::pair<std::uint32_t, std::uint32_t>, scripted::CpuidRegisters>& script() {
  static std::map<std::pair<std::uint32_t, std::uint32_t>, scripted::CpuidRegisters> answers;
  return answers;
}

std::vector<std::pair<std::uint32_t, std::uint32_t>>& log() {
  static std::vector<std::pair<std::uint32_t, std::uint32_t>> queries;
  return queries;
}

scripted::Backdoor backdoor = scripted::Backdoor::kFault;
int backdoorCount = 0;

}  // namespace

namespace scripted {

void setCpuid(const std::vector<Answer>& answers) {
  script().clear();
  log().clear();
  for (const Answer& a : answers) {
    const bool added = script().emplace(std::make_pair(a.leaf, a.subleaf), a.regs).second;
    EXPECT_TRUE(added) << "CPUID leaf " << a.leaf << " sub-leaf " << a.subleaf
                       << " is scripted twice";
  }
}

std::vector<std::pair<std::uint32_t, std::uint32_t>> cpuidLog() {
  return log();
}

Answer vendor(std::uint32_t maxLeaf, const std::string& name) {
  std::uint32_t words[3] = {};
  std::memcpy(words, name.data(), name.size() < 12 ? name.size() : 12);
  // The vendor string reads EBX, EDX, ECX.
  return {0, 0, {maxLeaf, words[0], words[2], words[1]}};
}

void setBackdoor(Backdoor behaviour) {
  backdoor = behaviour;
  backdoorCount = 0;
}

int backdoorQueries() {
  return backdoorCount;
}

}  // namespace scripted

namespace xrprocdetector {
namespace detail {

CpuidRegisters cpuid(std::uint32_t leaf, std::uint32_t subleaf) {
  log().emplace_back(leaf, subleaf);
  const auto found = script().find({leaf, subleaf});
  return found == script().end() ? CpuidRegisters{0, 0, 0, 0} : found->second;
}

std::uint32_t vmwareBackdoorVersion() {
  ++backdoorCount;
  switch (backdoor) {
    case scripted::Backdoor::kMagic:
      return kVmwareMagic;
    case scripted::Backdoor::kOtherAnswer:
      return 0x12345678;
    case scripted::Backdoor::kFault:
      break;
  }
  // As the port access faults outside VMware: the probe's handler must take
  // the signal and jump back. A real fault while SIGSEGV is blocked (as a
  // faulted probe leaves it) would kill the process, so say so instead.
  sigset_t blocked;
  pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  if (sigismember(&blocked, SIGSEGV)) {
    ADD_FAILURE() << "the port access faulted with SIGSEGV blocked: the process would die";
    return 0;
  }
  std::raise(SIGSEGV);
  return 0;
}

}  // namespace detail
}  // namespace xrprocdetector
