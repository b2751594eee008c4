// The machine, as every part of the library reads it: files under a root,
// CPUID on a processor, the thread's affinity and pinning, the operating
// system's processor counts and the VMware port, through one interface.
//   LiveMachine       this machine;
//   TreeMachine       a snapshot or a system root on disk, keeping what the
//                     readers read of it when a source is made;
//   ReplayMachine     a saved machine, replayed from memory;
//   RecordingMachine  this machine, keeping all that was read, so that a
//                     snapshot is what the readers read and nothing else.
// The calling thread's machine is the innermost MachineScope's, or the live
// machine when there is none: the detector classes, called by a host
// directly, read this machine as they always have.
#ifndef XRPROCDETECTOR_SRC_MACHINE_MACHINE_H
#define XRPROCDETECTOR_SRC_MACHINE_MACHINE_H

#include <fcntl.h>
#include <signal.h>

#include <xrprocdetector/detect.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "machine/reader.h"

namespace xrprocdetector {
namespace detail {

// The two instructions (hardware_x86.cpp): CPUID with EAX = leaf and
// ECX = subleaf on the current processor, no highest-leaf check made; and
// the VMware backdoor "get version" query (EAX = 0x564D5868, ECX = 10,
// DX = 0x5658, a 32-bit IN), returning EBX. Outside VMware the IN faults.
CpuidRegisters cpuid(std::uint32_t leaf, std::uint32_t subleaf);
std::uint32_t vmwareBackdoorVersion();
constexpr std::uint32_t kVmwareMagic = 0x564D5868;  // "VMXh"

// One query of a CPUID dump and its answer. `mask` says which inputs matter:
// bit 0 EAX (the leaf), bit 1 EBX, bit 2 ECX (the sub-leaf), bit 3 EDX.
struct CpuidLine {
  std::uint32_t mask;
  std::uint32_t in[4];   // EAX, EBX, ECX, EDX
  std::uint32_t out[4];  // EAX, EBX, ECX, EDX
};
using CpuidDump = std::vector<CpuidLine>;
// The answer of the first line whose masked inputs equal the query's (EAX
// leaf, ECX sub-leaf, EBX = EDX = 0); zeros when no line does.
CpuidRegisters dumpAnswer(const CpuidDump& dump, std::uint32_t leaf, std::uint32_t subleaf);

// Thrown by a saved machine asked for what it does not hold ("the
// affinity", "cpuid/pu3", "/proc/cpuinfo"), and by a strict live machine
// whose /proc/cpuinfo cannot be read: what asked cannot go on, and the
// entry point says so instead of counting.
struct Missing {
  std::string what;
};

// /proc/cpuinfo as the word scans read it: a descriptor to stream from
// (the reader closes it), a text, or neither: it cannot be opened.
struct CpuinfoStream {
  int fd = -1;
  const std::string* text = nullptr;
};

class Machine {
 public:
  virtual ~Machine() = default;
  // The file at `path`, relative to the machine's root ("proc/cpuinfo"), as
  // readWholeFile reads it.
  virtual Read file(const std::string& path, std::size_t cap, std::string* text,
                    std::string* why) = 0;
  // The names in the folder `path` ("" the root), as listFolder gives them.
  virtual Read entries(const std::string& path, std::vector<std::string>* names) = 0;
  // `path` as a message names it.
  virtual std::string shown(const std::string& path) const = 0;
  virtual CpuinfoStream cpuinfo() = 0;
  // CPUID on the processor the thread runs on.
  virtual CpuidRegisters cpuid(std::uint32_t leaf, std::uint32_t subleaf) = 0;
  // The backdoor's EBX: kVmwareMagic for VMware. Live, it faults outside
  // VMware: only guardedVmwareProbe() asks.
  virtual std::uint32_t backdoor() = 0;
  // sysconf(_SC_NPROCESSORS_CONF or _ONLN): -1 when unknown.
  virtual long processorCount(int name) = 0;
  // The calling thread's affinity; false when it cannot be read.
  virtual bool affinity(CpuSet* set) = 0;
  // Pins the calling thread to `set`; false (nothing changed) when refused.
  virtual bool pin(const CpuSet& set) = 0;
  // A descriptor of the file at `path`, to be read again with pread by a
  // reader that keeps it (and closes it); -1 where the machine keeps no
  // descriptors (a saved machine: read it with file()).
  virtual int keep(const std::string& /*path*/) { return -1; }
  // True where what is read is kept for other readers too (a save): each
  // processor's own files are then read, even those a sibling's tell.
  virtual bool keepsAll() const { return false; }
};

// The calling thread's machine.
Machine& machine();

// Makes `m` the calling thread's machine until the scope ends. Scopes nest
// and end in the reverse order of their making.
class MachineScope {
 public:
  explicit MachineScope(Machine& m);
  ~MachineScope();
  MachineScope(const MachineScope&) = delete;
  MachineScope& operator=(const MachineScope&) = delete;

 private:
  Machine* previous_;
};

// This machine: its own files, by their paths.
class LiveMachine : public Machine {
 public:
  // `strict`: a /proc/cpuinfo that cannot be read throws Missing, rather
  // than giving the scans a source that never ends.
  explicit LiveMachine(bool strict = false) : strict_(strict) {}
  // This machine's /proc and /sys hold regular files alone, each read as
  // it is opened (4 system calls); a tree from elsewhere may hold anything
  // (TreeMachine).
  Read file(const std::string& path, std::size_t cap, std::string* text,
            std::string* why) override {
    return readWholeFile(AT_FDCWD, "/" + path, cap, text, why);
  }
  Read entries(const std::string& path, std::vector<std::string>* names) override {
    return listFolder(AT_FDCWD, "/" + path, names);
  }
  std::string shown(const std::string& path) const override { return "/" + path; }
  CpuinfoStream cpuinfo() override;
  CpuidRegisters cpuid(std::uint32_t leaf, std::uint32_t subleaf) override;
  std::uint32_t backdoor() override;
  long processorCount(int name) override;
  bool affinity(CpuSet* set) override;
  bool pin(const CpuSet& set) override;
  int keep(const std::string& path) override;

 private:
  bool strict_;
};

// A saved machine: its files, read whole from a snapshot's tree, and what
// the snapshot loader or a recording found besides.
struct SavedMachine {
  std::string dir;  // where it was read, as messages name it; empty for a text alone
  // What was read of the tree, by the paths asked for from its top ("" the
  // top): each file's bytes, or why it could not be read; each folder's
  // names.
  std::map<std::string, std::string> files;
  std::map<std::string, std::string> failures;
  std::map<std::string, std::vector<std::string>> folders;
  std::optional<long> configured;  // sysconf's counts
  std::optional<long> online;
  std::optional<CpuSet> affinity;  // the thread's
  bool vmwareBackdoor = false;     // the port answered with the magic
  std::map<unsigned, CpuidDump> cpuid;
  std::map<unsigned, unsigned> sameDump;  // a processor whose dump is another's file
  // What a reader asking for a missing part is told holds nothing: "the
  // snapshot", "the file".
  std::string holder = "the snapshot";
};

// A saved machine answering in this one's place, from memory alone: the
// files, failures and folder listings kept under the paths the readers
// asked for. Its affinity starts as the saved one; pinning succeeds where
// the set meets it, and CPUID answers from the dump of the lowest processor
// of the thread's set. What it lacks throws Missing.
class ReplayMachine : public Machine {
 public:
  explicit ReplayMachine(const SavedMachine& saved);
  Read file(const std::string& path, std::size_t cap, std::string* text, std::string* why) override;
  Read entries(const std::string& path, std::vector<std::string>* names) override;
  std::string shown(const std::string& path) const override {
    return saved_.dir + (saved_.dir.empty() || saved_.dir.back() == '/' ? "" : "/") + path;
  }
  CpuinfoStream cpuinfo() override;
  CpuidRegisters cpuid(std::uint32_t leaf, std::uint32_t subleaf) override;
  std::uint32_t backdoor() override;
  long processorCount(int name) override;
  bool affinity(CpuSet* set) override;
  bool pin(const CpuSet& set) override;

 protected:
  // The thread's set taken again from the saved affinity.
  void restart() { current_ = saved_.affinity; }

 private:
  const SavedMachine& saved_;
  std::optional<CpuSet> current_;
};

// The tree of a snapshot or a system root on disk, open as `fd`, read as
// the readers ask and kept in `saved` under the paths they asked for, so
// that a replay of `saved` answers them alike; the rest as ReplayMachine.
// Each path is resolved inside the tree (openInRoot); a link that leads to
// nothing there (dangling, round in a loop, or to /dev/zero, which names
// nothing inside the tree) is a broken file, as the kernel's files are
// never such links. find() reads each file once, however many names lead
// to it (file() once a name), and all is kept within kTreeCap, past which
// every read fails and error() says so.
class TreeMachine : public ReplayMachine {
 public:
  TreeMachine(int fd, dev_t device, SavedMachine& saved)
      : ReplayMachine(saved), fd_(fd), device_(device), saved_(saved) {}
  TreeMachine(const TreeMachine&) = delete;
  TreeMachine& operator=(const TreeMachine&) = delete;
  // The file at `path` within `cap`, read once: *text stays valid as long
  // as this machine. Not kept in `saved`. With `taken`, the bytes are moved
  // there and forgotten here (another name reads the file again): for the
  // first files read, such as /proc/cpuinfo, held by the caller alone.
  Read find(const std::string& path, std::size_t cap, const std::string** text, std::string* why,
            std::string* taken = nullptr);
  Read file(const std::string& path, std::size_t cap, std::string* text, std::string* why) override;
  Read entries(const std::string& path, std::vector<std::string>* names) override;
  // The affinity as saved now, after the metadata that holds it.
  using ReplayMachine::restart;
  const Error& error() const { return error_; }

 private:
  bool hold(std::size_t bytes);
  Read unopened(const std::string& path, std::string* why);
  int folderOf(const std::string& path, const char** rest);

  int fd_;
  dev_t device_;  // the tree's file system: files on others are not its own
  SavedMachine& saved_;
  std::map<std::pair<dev_t, ino_t>, std::string> read_;  // each file read, by its identity
  std::size_t held_ = 0;
  Error error_;
  std::map<std::string, Fd> folders_;  // folderOf's, by their paths
};

// Another machine (this one, when saving), keeping what was read through
// it: each file's bytes (absent and unreadable ones are left out), each
// folder's names, every CPUID answer under the processor that gave it, the
// counts, the affinity at the start and the VMware port's answer.
class RecordingMachine : public Machine {
 public:
  explicit RecordingMachine(Machine& inner);
  Read file(const std::string& path, std::size_t cap, std::string* text, std::string* why) override;
  Read entries(const std::string& path, std::vector<std::string>* names) override;
  std::string shown(const std::string& path) const override { return inner_.shown(path); }
  CpuinfoStream cpuinfo() override;
  CpuidRegisters cpuid(std::uint32_t leaf, std::uint32_t subleaf) override;
  std::uint32_t backdoor() override;
  long processorCount(int name) override;
  bool affinity(CpuSet* set) override { return inner_.affinity(set); }
  bool pin(const CpuSet& set) override;
  bool keepsAll() const override { return true; }

  // Adds every processor's whole CPUID dump (pinned to each of the saved
  // affinity in turn). False with *error when a pinning fails.
  bool dumpEveryProcessor(Error* error);
  const SavedMachine& saved() const { return saved_; }
  const std::map<std::string, std::string>& files() const { return saved_.files; }
  const std::map<std::string, std::string>& failures() const { return saved_.failures; }
  const std::map<std::string, std::vector<std::string>>& folders() const { return saved_.folders; }

 private:
  Machine& inner_;
  SavedMachine saved_;
  CpuSet current_;
};

// The VMware probe under its fault guard: a SIGSEGV handler for the span of
// one port access, left by a non-local jump, with SIGSEGV unblocked in the
// calling thread for that access alone; then SIGSEGV's disposition is set to
// the default, whatever it was (under a SignalState, the one before is put
// back at once instead, unless another thread has meanwhile put its own in
// place of the guard's handler: that one stays). Faults that are not the
// probe's (of other threads, or outside the access) go to the action in
// place before. After a fault, SIGSEGV stays blocked in the calling thread.
// One probe at a time in the process, under the probe lock, which a fork
// never leaves held in the child. True when the port answered with the
// magic.
bool guardedVmwareProbe();

// The thread's signal mask, kept to be given back, and the probe lock
// (recursive), held while it lives, so that no other thread's probe runs
// in between; guardedVmwareProbe under it gives SIGSEGV's disposition back
// itself.
class SignalState {
 public:
  SignalState();
  ~SignalState();
  SignalState(const SignalState&) = delete;
  SignalState& operator=(const SignalState&) = delete;

 private:
  std::lock_guard<std::recursive_mutex> lock_;
  sigset_t mask_;
};

}  // namespace detail
}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_SRC_MACHINE_MACHINE_H
