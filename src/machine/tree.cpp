// The whole tree of a snapshot or a system root, read into a saved machine.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "machine/machine.h"

namespace xrprocdetector {
namespace detail {

namespace {

// Deeper than any kernel's tree of files; a tree deeper still is refused
// rather than read down to the end of the stack or of the descriptors.
constexpr int kMaxDepth = 128;

struct TreeReader {
  SavedMachine* s;
  Error* error;
  std::map<std::pair<dev_t, ino_t>, std::string> seen;  // each file read, by its first name
  dev_t device;                                         // the tree's file system
  std::size_t held = 0;
  char target[4096];  // a link's, read

  bool hold(std::size_t bytes) {
    held += bytes;
    return held <= kTreeCap ||
           fail(error, s->dir, largerThan(kTreeCap) + " in all, more than any snapshot");
  }

  // The entry `name` of the folder open as `fd`, at `at`.
  bool entry(int fd, const std::string& name, const std::string& at) {
    struct stat st {};
    if (!hold(at.size() + 64)) return false;  // a name, and what keeping it costs
    if (::fstatat(fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || st.st_dev != device)
      return true;  // gone since it was listed, or another file system
    const ssize_t n =
        S_ISLNK(st.st_mode) ? ::readlinkat(fd, name.c_str(), target, sizeof target) : 0;
    if (n > 0) s->links[at].assign(target, static_cast<std::size_t>(n));
    if (S_ISLNK(st.st_mode)) return true;
    if (S_ISDIR(st.st_mode)) {
      const Fd sub(::openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
      return sub.get() >= 0 ? folder(sub.get(), at)
                            : fail(error, s->dir + "/" + at, std::strerror(errno), "cannot list");
    }
    // Another name of a file already read: a link to the first.
    const auto first = seen.emplace(std::pair(st.st_dev, st.st_ino), at);
    if (!first.second) return s->links.emplace(at, "/" + first.first->second).second;
    std::string text, why;
    const Read r = readWholeFile(fd, name, kCpuinfoCap, &text, &why);
    if (!hold(text.size())) return false;
    if (r != Read::kAbsent)
      (r == Read::kOk ? s->files : s->failures)[at] = r == Read::kOk ? std::move(text) : why;
    return true;
  }

  // The folder open as `fd`, at `path` ("" the top), and all below it.
  bool folder(int fd, const std::string& path) {
    std::vector<std::string>& names = s->folders[path];
    if (std::count(path.begin(), path.end(), '/') >= kMaxDepth)
      return fail(error, s->dir + "/" + path,
                  "folders nested deeper than " + std::to_string(kMaxDepth));
    if (listFolder(fd, ".", &names) != Read::kOk)
      return fail(error, s->dir + "/" + path, std::strerror(errno), "cannot list");
    for (const std::string& name : names) {
      if (!entry(fd, name, path.empty() ? name : path + "/" + name)) return false;
    }
    return true;
  }
};

}  // namespace

bool readTree(int fd, SavedMachine* into, Error* error) {
  struct stat top {};
  return TreeReader{into, error, {}, ::fstat(fd, &top) == 0 ? top.st_dev : 0, 0, {}}.folder(fd, "");
}

}  // namespace detail
}  // namespace xrprocdetector
