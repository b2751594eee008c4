// Reading a whole file within its cap, and listing a folder: live files by
// their paths, or a name in a folder of a saved tree.
#include "machine/paths.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
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

// `path` opened with `flags` under the folder `dir`, where it is a name that
// is never followed when a link; or with AT_FDCWD, the path itself.
int openAt(int dir, const std::string& path, int flags) {
  return ::openat(dir, path.c_str(), flags | O_CLOEXEC | (dir == AT_FDCWD ? 0 : O_NOFOLLOW));
}

// What `path` names under `root`, opened for reading without blocking
// when it is of `type` (S_IFREG or S_IFDIR), *st saying what it is. It is
// found first as an O_PATH descriptor, so that nothing else, a device or a
// FIFO, is ever opened, and then that very file is opened. -1 with errno set
// when it cannot be (ENOTDIR when it is of another type).
int openChecked(int root, const std::string& path, mode_t type, struct stat* st) {
  const int at = openAt(root, path, O_PATH);
  if (at < 0) return -1;
  const int flags = O_RDONLY | O_NONBLOCK | (type == S_IFDIR ? O_DIRECTORY : 0);
  struct stat again {};
  int fd = -1;
  errno = ENOTDIR;
  if (::fstat(at, st) == 0 && (st->st_mode & S_IFMT) == type) {
    fd = ::open(("/proc/self/fd/" + std::to_string(at)).c_str(), flags | O_CLOEXEC);
    // Without /proc: found again, and taken only if it is still that file.
    if (fd < 0 && errno == ENOENT && (fd = openAt(root, path, flags)) >= 0 &&
        (::fstat(fd, &again) != 0 || again.st_ino != st->st_ino || again.st_dev != st->st_dev))
      ::close(fd), fd = -1, errno = ESTALE;
  }
  ::close(at);
  return fd;
}

}  // namespace

Read readWholeFile(int dirFd, const std::string& path, std::size_t cap, std::string* text,
                   std::string* error, bool anyKind) {
  text->clear();
  struct stat st {};
  // A pipe is opened as it is, to wait for what it will be given.
  const int fd = anyKind ? openAt(dirFd, path, O_RDONLY) : openChecked(dirFd, path, S_IFREG, &st);
  if (fd < 0) {
    const bool other = st.st_mode != 0 && !S_ISREG(st.st_mode);  // found, of another kind
    if (!other && errno == ENOENT) return Read::kAbsent;
    *error = other ? std::string(kindOf(st.st_mode)) + ", not a regular file"
                   : std::string("cannot open: ") + std::strerror(errno);
    return Read::kFailed;
  }
  // Straight into the text, sized by what the file says it holds (sysfs
  // files say 4096 whatever they hold; a pipe says 0), growing as needed.
  // A file that gave all it says it holds is done without another read.
  const std::size_t expected = anyKind ? 0 : static_cast<std::size_t>(st.st_size);
  text->resize(std::min(expected > 0 ? expected + 1 : 4096, cap + 1));
  std::size_t size = 0;
  for (;;) {
    if (size == text->size()) text->resize(std::min(2 * size, cap + 1));
    const ssize_t n = ::read(fd, &(*text)[size], text->size() - size);
    if (n > 0) size += static_cast<std::size_t>(n);
    const bool failed = size > cap || (n < 0 && errno != EINTR);
    if (size > cap)
      *error = largerThan(cap);
    else if (failed)
      *error = std::string("cannot read: ") + std::strerror(errno);
    else if (n < 0 || (n > 0 && size != expected))
      continue;  // interrupted, or more to come
    ::close(fd);
    text->resize(failed ? 0 : size);
    return failed ? Read::kFailed : Read::kOk;
  }
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
  struct stat st {};
  const int fd = openChecked(dirFd, path, S_IFDIR, &st);
  DIR* listing = fd < 0 ? nullptr : ::fdopendir(fd);
  if (listing == nullptr) {
    const int why = errno;
    if (fd >= 0) ::close(fd);
    errno = why;
    return why == ENOENT ? Read::kAbsent : Read::kFailed;
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
