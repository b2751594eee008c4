// Writing a recording of this machine into a snapshot directory.
// Everything is written into a working folder inside the directory and
// moved into place at the end, xrprocdetect.json last; a save that fails
// removes what it wrote, and one cut off (the process killed) leaves the
// working folder, which loading refuses as an unfinished save.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "snapshot/snapshot_io.h"

namespace xrprocdetector {
namespace detail {

namespace {

const char kWork[] = ".xrprocdetect-saving";

// Writes what a recording kept into the working folder, each file where it
// will stand in the snapshot, and names what failed against the snapshot's
// path.
class Saver {
 public:
  Saver(const std::string& dir, int work, Error* error)
      : shown_(dir + "/"), work_(work), error_(error) {}

  // `what` failed on `path`, relative to the snapshot, for errno's reason.
  bool failed(const char* what, const std::string& path) {
    return fail(error_, shown_ + path, std::strerror(errno), what);
  }

  // Makes the folders of `path` (relative to the snapshot) that are not
  // there yet.
  bool makeDirs(const std::string& path) {
    for (std::size_t at = 0; at != std::string::npos;) {
      at = path.find('/', at + 1);
      const std::string part = path.substr(0, at);
      if (::mkdirat(work_, part.c_str(), 0755) != 0 && errno != EEXIST)
        return failed("cannot create", part);
    }
    return true;
  }

  bool write(const std::string& path, const std::string& data) {
    const int fd =
        ::openat(work_, path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) return failed("cannot create", path);
    std::size_t done = 0;
    while (done < data.size()) {
      const ssize_t n = ::write(fd, data.data() + done, data.size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        const int saved = n == 0 ? ENOSPC : errno;
        ::close(fd);
        errno = saved;
        return failed("cannot write", path);
      }
      done += static_cast<std::size_t>(n);
    }
    if (::close(fd) != 0) return failed("cannot write", path);
    return true;
  }

 private:
  std::string shown_;
  int work_;
  Error* error_;
};

void clear(int fd);

// Removes `name` in the folder open as `fd`, and all below it, through
// descriptors only: a link is removed, never followed.
void remove(int fd, const std::string& name) {
  const Fd folder(::openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (folder.get() >= 0) clear(folder.get());
  ::unlinkat(fd, name.c_str(), folder.get() >= 0 ? AT_REMOVEDIR : 0);
}

// Empties the folder open as `fd`.
void clear(int fd) {
  std::vector<std::string> inside;
  listFolder(fd, ".", &inside);
  for (const std::string& name : inside)
    remove(fd, name);
}

// What the recording read, into the working folder: the folders it listed,
// the files it read, each processor's CPUID dump.
bool saveRecorded(Saver& saver, const RecordingMachine& recording) {
  // A path through "..", as a cgroup namespace shows a cgroup outside it,
  // would lead out of the snapshot: such a file is left out.
  const auto inside = [](const std::string& path) {
    return !path.empty() && ("/" + path + "/").find("/../") == std::string::npos;
  };
  for (const auto& [folder, entries] : recording.folders()) {
    if (inside(folder) && !saver.makeDirs(folder)) return false;
  }
  for (const auto& [path, text] : recording.files()) {
    const std::size_t slash = path.rfind('/');
    if (inside(path) && ((slash != std::string::npos && !saver.makeDirs(path.substr(0, slash))) ||
                         !saver.write(path, text)))
      return false;
  }
  if (!saver.makeDirs("cpuid")) return false;
  for (const auto& [cpu, dump] : recording.saved().cpuid) {
    if (!saver.write("cpuid/pu" + std::to_string(cpu), formatDump(dump))) return false;
  }
  return true;
}

// Everything into the working folder `work`, then each of its entries into
// place, the metadata last; *moved names those moved.
bool saveInto(const std::string& dir, int root, int work, const RecordingMachine& recording,
              const std::string& savedBy, std::vector<std::string>* moved, Error* error) {
  Saver saver(dir, work, error);
  if (work < 0) return saver.failed("cannot open", kWork);
  std::vector<std::string> parts;
  if (!saveRecorded(saver, recording)) return false;
  if (listFolder(work, ".", &parts) != Read::kOk) return saver.failed("cannot list", kWork);
  parts.push_back("xrprocdetect.json");
  if (!saver.write("xrprocdetect.json", formatMetadata(recording.saved(), savedBy))) return false;
  for (const std::string& part : parts) {
    if (::renameat(work, part.c_str(), root, part.c_str()) != 0)
      return fail(error, dir + "/" + kWork + "/" + part + " into place", std::strerror(errno),
                  "cannot move");
    moved->push_back(part);
  }
  return true;
}

// Saves into `dir`, new or empty and never a symbolic link, opened once:
// every step, and the removal of what a failed save wrote, goes through
// that descriptor. The directory itself is removed when this save made it
// and it is still the one opened.
bool save(const std::string& dir, const RecordingMachine& recording, const std::string& savedBy,
          Error* error) {
  // Without its trailing slashes, which would have the link followed.
  const std::string named = dir.substr(0, std::max<std::size_t>(dir.find_last_not_of('/') + 1, 1));
  const bool created = ::mkdir(named.c_str(), 0755) == 0;
  if (!created && errno != EEXIST) return fail(error, dir, std::strerror(errno), "cannot create");
  const Fd root(::open(named.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat opened, now;
  if (root.get() < 0 && ::lstat(named.c_str(), &now) == 0 && S_ISLNK(now.st_mode))
    return fail(error, dir,
                "a symbolic link; a snapshot goes into a new or empty directory, named itself "
                "rather than through a link");
  if (root.get() < 0) return fail(error, dir, std::strerror(errno), "cannot open");
  std::vector<std::string> found, moved;
  if (listFolder(root.get(), ".", &found) != Read::kOk) {
    fail(error, dir, std::strerror(errno), "cannot open");
  } else if (!found.empty()) {
    fail(error, dir, "not empty; a snapshot goes into a new or empty directory");
  } else if (::mkdirat(root.get(), kWork, 0755) != 0) {
    fail(error, dir + "/" + kWork, std::strerror(errno), "cannot create");
  } else {
    const Fd work(::openat(root.get(), kWork, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (saveInto(dir, root.get(), work.get(), recording, savedBy, &moved, error)) {
      if (::unlinkat(root.get(), kWork, AT_REMOVEDIR) == 0) return true;
      fail(error, dir + "/" + kWork, std::strerror(errno), "cannot remove");
    }
    clear(work.get());
    ::unlinkat(root.get(), kWork, AT_REMOVEDIR);
    for (const std::string& part : moved)
      remove(root.get(), part);
  }
  if (created && ::fstat(root.get(), &opened) == 0 && ::lstat(named.c_str(), &now) == 0 &&
      opened.st_dev == now.st_dev && opened.st_ino == now.st_ino)
    ::rmdir(named.c_str());
  return false;
}

}  // namespace

bool writeSnapshot(const std::string& dir, const RecordingMachine& recording,
                   const std::string& savedBy, Error* error) noexcept {
  try {
    return save(dir, recording, savedBy, error);
  } catch (const std::bad_alloc&) {
    return fail(error, dir, "out of memory");
  }
}

}  // namespace detail
}  // namespace xrprocdetector
