// Reading a machine's files: the live machine's, by their paths, and a
// saved tree's, each path resolved inside the tree so that one collected
// elsewhere is never read beyond. A file is taken only when no larger than
// its cap, so a runaway file among collected directories is named as
// broken instead of exhausting the reader.
#ifndef XRPROCDETECTOR_SRC_MACHINE_PATHS_H
#define XRPROCDETECTOR_SRC_MACHINE_PATHS_H

#include <sys/types.h>
#include <unistd.h>

#include <cstddef>
#include <string>
#include <vector>

namespace xrprocdetector {
namespace detail {

enum class Read { kOk, kAbsent, kFailed };

// A descriptor, closed when it goes.
class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

// Caps that fit what each kind of file holds. A /proc/cpuinfo of 8,192
// processors is about 16 MiB.
constexpr std::size_t kCpuinfoCap = 64u << 20;
constexpr std::size_t kSmallFileCap = 64u << 10;  // a list, mask, number or word
constexpr std::size_t kCpuidDumpCap = 4u << 20;   // a real dump is a few hundred lines
// A mount table or a device list, a line an entry: a container host may
// have thousands of mounts.
constexpr std::size_t kTableCap = 16u << 20;
// All that a snapshot's tree may hold: its files' bytes, and its names with
// what keeping each costs. A machine of 8,192 processors saves about 100 MiB.
constexpr std::size_t kTreeCap = 256u << 20;
// What a file past `cap` is: "larger than 65536 bytes", "larger than 4 MiB".
std::string largerThan(std::size_t cap);

// The cap of the file at `path` under a system root: proc/cpuinfo's; a
// table's for the other files of proc/ (the mount tables, the control
// groups, the PCI devices); a small file's for the rest.
std::size_t capOf(const std::string& path);

// The kernel's own limit on processor numbers (NR_CPUS at its largest).
constexpr unsigned kKernelMaxProcessors = 8192;

// Opens `path` (not empty: "." is the root itself) under the directory
// `root` with `flags` (and O_CLOEXEC), resolved inside it as openat2's
// RESOLVE_IN_ROOT resolves: ".." stops at the root, an absolute path or
// link target starts from it, and no other file system mounted inside is
// entered (EXDEV). Where openat2 is missing (ENOSYS, or EPERM from a
// container's filter) the path is walked one component at a time to the
// same effect, following at most 40 links (then ELOOP), as it is always
// with `componentwise`. With AT_FDCWD, the path itself. -1 with errno set
// when it cannot be opened.
int openInRoot(int root, const std::string& path, int flags, bool componentwise = false);

// openInRoot for a path with no link on it: -1 with ELOOP where one is,
// and with ENOSYS or EPERM where openat2 is missing.
int openWithoutLinks(int root, const char* path, int flags);

// "a FIFO, not a regular file", and so on for each kind of file.
std::string notRegular(mode_t mode);

// Reads the file at `path` under `dirFd` (AT_FDCWD: the path itself, a
// live file or one the user named, which may be a pipe) into *text, never
// more than `cap` bytes. kAbsent when there is no such file; kFailed with
// *error saying why otherwise ("cannot open: ...", "larger than 65536
// bytes").
Read readWholeFile(int dirFd, const std::string& path, std::size_t cap, std::string* text,
                   std::string* error);
// Reads the file open as `fd`, which says it holds `expected` bytes (0 when
// it cannot say), into *text as readWholeFile does, and closes it.
Read readOpen(int fd, std::size_t expected, std::size_t cap, std::string* text, std::string* error);

// The names in the folder `path` under `dirFd` (resolved as openInRoot
// resolves it), without "." and "..". kAbsent when there is no such folder
// (or `dirFd` is -1), kFailed with errno set when it cannot be listed.
Read listFolder(int dirFd, const std::string& path, std::vector<std::string>* names);

}  // namespace detail
}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_SRC_MACHINE_PATHS_H
