// Reading a machine's files: the live machine ("/"), a snapshot directory,
// or a tree recorded for other topology tools. Every path is resolved
// inside the root's directory, its links and ".." included, so a tree
// collected from another machine is never read beyond. A file is opened,
// without blocking, only once it is known to be a regular file, and taken
// only when no larger than its cap, so a FIFO, a device or a runaway file
// among collected directories is named as broken instead of hanging or
// exhausting the reader. Live /proc and /sys files are regular files and
// read as usual.
#ifndef XRPROCDETECTOR_SRC_MACHINE_FILES_H
#define XRPROCDETECTOR_SRC_MACHINE_FILES_H

#include <climits>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <xrprocdetector/detect.h>

namespace xrprocdetector {
namespace detail {

enum class Read { kOk, kAbsent, kFailed };

// Caps that fit what each kind of file holds. A /proc/cpuinfo of 8,192
// processors is about 16 MiB.
constexpr std::size_t kCpuinfoCap = 64u << 20;
constexpr std::size_t kSmallFileCap = 64u << 10;  // a list, mask, number or word
constexpr std::size_t kCpuidDumpCap = 4u << 20;   // a real dump is a few hundred lines
// A mount table or a device list, a line an entry: a container host may
// have thousands of mounts.
constexpr std::size_t kTableCap = 16u << 20;

// The cap of the file at `path` under a system root: proc/cpuinfo's; a
// table's for the other files of proc/ (the mount tables, the control
// groups, the PCI devices); a small file's for the rest.
std::size_t capOf(const std::string& path);

// The kernel's own limit on processor numbers (NR_CPUS at its largest).
constexpr unsigned kKernelMaxProcessors = 8192;

// Opens `path` (not empty: "." is the root itself) under the directory
// `root` with `flags` (and O_CLOEXEC), resolved inside it as openat2's
// RESOLVE_IN_ROOT resolves: ".." stops at the root and an absolute path or
// link target starts from it. Where openat2 is missing (ENOSYS, or EPERM
// from a container's filter), or `componentwise`, the path is walked one
// component at a time to the same effect, following at most 40 links (then
// ELOOP). AT_FDCWD: the path as it is, a path the user named. -1 with errno
// set when it cannot be opened.
int openInRoot(int root, const std::string& path, int flags, bool componentwise = false);

// Reads `path` under the directory `dirFd`, resolved inside it (openInRoot),
// or with AT_FDCWD the path itself as the user named it, into *text. Only a
// regular file is read, and opened only once it is known to be one, unless
// `anyKind` (a saved text the user names, which may be a pipe); never more
// than `cap` bytes. kAbsent when there is no such file; kFailed with *error
// saying why otherwise ("a FIFO, not a regular file", "larger than 65536
// bytes", ...).
Read readWholeFile(int dirFd, const std::string& path, std::size_t cap, std::string* text,
                   std::string* error, bool anyKind = false);

// The names in the folder `path` under `dirFd` (resolved as openInRoot
// resolves it), without "." and "..". kAbsent when there is no such folder
// (or `dirFd` is -1), kFailed with errno set when it cannot be listed.
Read listFolder(int dirFd, const std::string& path, std::vector<std::string>* names);

// A kernel processor list such as "0-3,8-11\n": increasing, no repeats,
// every number below CpuSet::kLimit. An empty list is valid. On failure
// *error is "line 1: ..." (the list's only line). Allocates nothing but the
// message.
bool parseProcessorList(std::string_view text, CpuSet* set, std::string* error);
// The value of a hexadecimal digit, or -1.
int hexDigit(char c);
// A kernel CPU mask: 32-bit hexadecimal words, most significant first,
// separated by commas.
bool parseCpuMask(std::string_view text, CpuSet* set, std::string* error);

// Whether `name` is `prefix` followed by a number ("cpu12", "pu3"). If so,
// *n is the number when it is in canonical form (no leading zero) and below
// `limit`; otherwise *problem says which it is not.
bool numberedName(const std::string& name, const char* prefix, unsigned limit, unsigned* n,
                  std::string* problem);

// `text` as a whole number from `min` to `max`: base 10, nothing around it.
// Allocates nothing.
bool wholeNumber(std::string_view text, long min, long max, long* value);
// `text` without the blanks and line ends at its end.
std::string_view trimmed(std::string_view text);

// What went wrong, the one shape of every failure: the step that failed
// where the reason alone does not say it ("cannot create"), the file to
// blame as a message names it (empty where no one file is), and why.
struct Error {
  std::string what;
  std::string file;
  std::string why;
  // "WHAT FILE: WHY", or "FILE line N: ..." where a line is to blame, or
  // WHY alone without a file.
  std::string text() const;
  bool empty() const { return why.empty(); }
};
// Sets *error and returns false: the end of a step that failed.
bool fail(Error* error, std::string file, std::string why, std::string what = "");

// A JSON string literal of `text`.
std::string jsonQuoted(std::string_view text);

class Machine;

// The typed reader of a machine's files: texts, numbers, processor lists
// and masks, each failure recorded against its file.
class SystemRoot {
 public:
  explicit SystemRoot(Machine& machine) : machine_(machine) {}
  // The folder `path` of `parent`: paths are relative to it, and named and
  // resolved as the parent's, so a link in them stays inside the whole tree.
  SystemRoot(const SystemRoot& parent, const std::string& path)
      : machine_(parent.machine_), base_(parent.base_ + path + "/") {}

  // `path` as a message names it.
  std::string shown(const std::string& path) const;
  // A file within its cap (capOf), without its trailing white space. A
  // failure is recorded (the first one is kept, naming the file) as well as
  // returned.
  Read text(const std::string& path, std::string* out);
  // A whole number from `min` to `max`; any other text is a failure.
  Read number(const std::string& path, long* value, long min = LONG_MIN, long max = LONG_MAX);
  // A processor list, or with `mask` a CPU mask.
  Read list(const std::string& path, CpuSet* out, bool mask = false);
  // The first failure met, naming its file; empty when there was none.
  const Error& error() const { return error_; }
  // The numbers N of the processor folders cpuN in the folder `path`, in
  // increasing order; none when it cannot be listed. A folder cpuN whose N
  // is not canonical or not below the kernel's limit is a failure.
  std::vector<unsigned> processorFolders(const std::string& path);
  // Records a failure of the file at `path` ("line 1: ..." or a reason).
  Read fail(const std::string& path, const std::string& why);

 private:
  Machine& machine_;
  std::string base_;  // the folder under the root, "" or ending in '/'
  Error error_;
};

}  // namespace detail
}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_SRC_MACHINE_FILES_H
