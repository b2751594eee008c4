// Paths under a root: opening a file or a folder resolved inside a
// directory, reading a whole file within its cap, listing a folder.
#include "machine/paths.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace xrprocdetector {
namespace detail {

namespace {

const char* kindOf(mode_t mode) {
  if (S_ISDIR(mode)) return "a directory";
  if (S_ISFIFO(mode)) return "a FIFO";
  if (S_ISSOCK(mode)) return "a socket";
  if (S_ISCHR(mode) || S_ISBLK(mode)) return "a device";
  return "not a regular file";
}

// openInRoot without openat2: one component at a time, each opened with
// O_PATH|O_NOFOLLOW from the folder before it, a link's target put in the
// link's place (from the root when it is absolute), ".." going back up the
// folders entered but never above the root. The last component is opened
// again with `flags`.
int byComponents(int root, std::string rest, int flags) {
  std::vector<int> entered;  // the folders entered, from the root down
  const auto up = [&entered] { ::close(entered.back()), entered.pop_back(); };
  int links = 0;
  int fd = -1;
  for (bool last = false; !last;) {
    const std::size_t from = rest.find_first_not_of('/');
    const std::size_t to = rest.find('/', from);
    std::string name = from == std::string::npos ? "." : rest.substr(from, to - from);
    rest.erase(0, to);
    last = rest.find_first_not_of('/') == std::string::npos;
    if (name == ".." && !entered.empty()) up();
    if (name == "..") name = ".";
    const int at = entered.empty() ? root : entered.back();
    const int next = ::openat(at, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (next < 0) break;
    entered.push_back(next);
    char target[4096];
    const ssize_t n = ::readlinkat(next, "", target, sizeof target);  // -1 but for a link
    if (n > 0 || name == ".") up();  // a link gives way to its target; "." was entered
    while (n > 0 && target[0] == '/' && !entered.empty())
      up();
    if (n > 0 && ++links > 40) break;  // as many links as the kernel follows in one path
    if (n > 0) rest = std::string(target, static_cast<std::size_t>(n)) + "/" + rest;
    last = last && (n <= 0 || (flags & O_NOFOLLOW) != 0);
    if (last) fd = ::openat(at, name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC);
  }
  if (links > 40) errno = ELOOP;
  for (const int dir : entered)
    ::close(dir);  // errno is kept: close changes it only when it fails
  return fd;
}

}  // namespace

int openInRoot(int root, const std::string& path, int flags, bool componentwise) {
  if (root == AT_FDCWD) return ::open(path.c_str(), flags | O_CLOEXEC);
  open_how how{static_cast<std::uint64_t>(flags | O_CLOEXEC), 0,
               RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS | RESOLVE_NO_XDEV};
  const long fd = componentwise ? -1 : ::syscall(SYS_openat2, root, path.c_str(), &how, sizeof how);
  // openat2 is missing before Linux 5.6, and refused by some containers' filters.
  if (componentwise || (fd < 0 && (errno == ENOSYS || errno == EPERM)))
    return byComponents(root, path, flags);
  return static_cast<int>(fd);
}

int openWithoutLinks(int root, const char* path, int flags) {
  open_how how{static_cast<std::uint64_t>(flags | O_NOFOLLOW | O_CLOEXEC), 0,
               RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS | RESOLVE_NO_XDEV | RESOLVE_NO_SYMLINKS};
  return static_cast<int>(::syscall(SYS_openat2, root, path, &how, sizeof how));
}

std::string notRegular(mode_t mode) {
  return std::string(kindOf(mode)) + ", not a regular file";
}

Read readWholeFile(int dirFd, const std::string& path, std::size_t cap, std::string* text,
                   std::string* error) {
  text->clear();
  // A pipe is opened as it is, to wait for what it will be given.
  const int fd = openInRoot(dirFd, path, O_RDONLY);
  if (fd < 0 && errno == ENOENT) return Read::kAbsent;
  if (fd < 0) *error = std::string("cannot open: ") + std::strerror(errno);
  return fd < 0 ? Read::kFailed : readOpen(fd, 0, cap, text, error);
}

Read readOpen(int fd, std::size_t expected, std::size_t cap, std::string* text,
              std::string* error) {
  // The first read goes to the stack: most files are small, and their text
  // is then made at its own size, not zeroed and kept at the size the file
  // claims (every sysfs file says 4096). The rest goes straight into the
  // text, sized by what the file says it holds and growing as needed. A
  // file that gave all it says it holds is done without another read.
  char head[4096];
  ssize_t n = 0;
  std::size_t size = 0;
  do {
    if (size == 0) n = ::read(fd, head, std::min(sizeof head, cap + 1));
    if (size == 0 && n > 0) text->assign(head, static_cast<std::size_t>(n));
    if (size > 0 && size == text->size())
      text->resize(std::min(std::max(2 * size, expected + 1), cap + 1));
    if (size > 0) n = ::read(fd, &(*text)[size], text->size() - size);
    if (n > 0) size += static_cast<std::size_t>(n);
  } while ((n < 0 && errno == EINTR) || (n > 0 && size != expected && size <= cap));
  const bool failed = size > cap || n < 0;
  if (size > cap)
    *error = largerThan(cap);
  else if (n < 0)
    *error = std::string("cannot read: ") + std::strerror(errno);
  ::close(fd);
  text->resize(failed ? 0 : size);
  return failed ? Read::kFailed : Read::kOk;
}

std::string largerThan(std::size_t cap) {
  return "larger than " +
         (cap >= (1u << 20) ? std::to_string(cap >> 20) + " MiB" : std::to_string(cap) + " bytes");
}

std::size_t capOf(const std::string& path) {
  if (path == "proc/cpuinfo") return kCpuinfoCap;
  return path.compare(0, 5, "proc/") == 0 ? kTableCap : kSmallFileCap;
}

Read listFolder(int dirFd, const std::string& path, std::vector<std::string>* names) {
  names->clear();
  if (dirFd == -1) return Read::kAbsent;
  const int fd = openInRoot(dirFd, path.empty() ? "." : path, O_RDONLY | O_DIRECTORY);
  DIR* listing = fd < 0 ? nullptr : ::fdopendir(fd);
  if (listing == nullptr) {
    const int why = errno;
    if (fd >= 0) ::close(fd);
    errno = why;
    return why == ENOENT || why == ENOTDIR || why == EXDEV ? Read::kAbsent : Read::kFailed;
  }
  while (const dirent* entry = ::readdir(listing)) {
    if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
      names->push_back(entry->d_name);
  }
  ::closedir(listing);
  return Read::kOk;
}

}  // namespace detail
}  // namespace xrprocdetector
