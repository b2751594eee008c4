// Reading a machine's files: the live machine ("/"), a snapshot directory,
// or a tree recorded for other topology tools. Every path is resolved
// inside the root's directory, its links and ".." included, so a tree
// collected from another machine is never read beyond. A file is opened,
// without blocking, only once it is known to be a regular file, and taken
// only when no larger than its cap, so a FIFO, a device or a runaway file
// among collected directories is named as broken instead of hanging or
// exhausting the reader. Live /proc and /sys files are regular files and
// read as usual.
#ifndef XRPROCDETECTOR_SRC_MACHINE_PATHS_H
#define XRPROCDETECTOR_SRC_MACHINE_PATHS_H

#include <cstddef>
#include <string>
#include <vector>

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

}  // namespace detail
}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_SRC_MACHINE_PATHS_H
