// A snapshot's or a system root's tree on disk, read as the readers ask.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "machine/machine.h"

namespace xrprocdetector {
namespace detail {

bool TreeMachine::hold(std::size_t bytes) {
  held_ += bytes;
  return held_ <= kTreeCap ||
         fail(&error_, saved_.dir, largerThan(kTreeCap) + " in all, more than any snapshot");
}

// Why `path` could not be opened (errno): nothing there, or a link that
// leads to nothing inside the tree.
Read TreeMachine::unopened(const std::string& path, std::string* why) {
  const int error = errno;
  if (error == ENOENT || error == ELOOP) {
    // The link itself, when the last name is one.
    const Fd link(openInRoot(fd_, path, O_PATH | O_NOFOLLOW));
    if (link.get() < 0 && error == ENOENT) return Read::kAbsent;
    *why = "a link to nothing in " + saved_.holder;
    return Read::kFailed;
  }
  if (error == ENOTDIR || error == EXDEV) return Read::kAbsent;  // under a file, or elsewhere
  *why = std::string("cannot open: ") + std::strerror(error);
  return Read::kFailed;
}

// The folder of the first four names of a deeper path
// ("sys/devices/system/cpu"), opened once, without a link on its way: a
// file under it is looked at and opened from there (*rest), and the kernel
// walks four names less for each. The tree's top for any other path, or
// where the folder cannot be opened so.
int TreeMachine::folderOf(const std::string& path, const char** rest) {
  std::size_t end = path.find('/');
  for (int names = 1; names < 4 && end != std::string::npos; ++names)
    end = path.find('/', end + 1);
  if (end == std::string::npos || path.find('/', end + 1) == std::string::npos) return fd_;
  const std::string folder = path.substr(0, end);
  auto at = folders_.find(folder);
  if (at == folders_.end())
    at =
        folders_.emplace(folder, openWithoutLinks(fd_, folder.c_str(), O_PATH | O_DIRECTORY)).first;
  if (at->second.get() < 0) return fd_;
  *rest = path.c_str() + end + 1;
  return at->second.get();
}

Read TreeMachine::find(const std::string& path, std::size_t cap, const std::string** text,
                       std::string* why, std::string* taken) {
  if (!error_.empty()) return *why = error_.why, Read::kFailed;
  // A file is looked at before it is opened, so that a FIFO or a device put
  // in a tree is never opened, let alone read. A path with no link on it is
  // looked at and opened from the tree's top, or from folderOf's folder:
  // four system calls a file (fstatat, openat2, read, close). Any other is
  // resolved inside the tree, and looked at through what that gives. A file
  // read already under another name is not read again.
  struct stat st {};
  const char* rest = path.c_str();
  const int from = folderOf(path, &rest);
  const bool plain = path.find("..") == std::string::npos &&
                     ::fstatat(from, rest, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode) &&
                     st.st_dev == device_;
  const int flags = O_RDONLY | O_NONBLOCK | O_NOCTTY;
  auto known = plain ? read_.find({st.st_dev, st.st_ino}) : read_.end();
  int fd = plain && known == read_.end() ? openWithoutLinks(from, rest, flags) : -1;
  if (fd < 0 && known == read_.end()) {  // a link on the way, or no openat2
    const Fd linked(openInRoot(fd_, path, O_PATH));
    if (linked.get() < 0 || ::fstat(linked.get(), &st) != 0) return unopened(path, why);
    if (!S_ISREG(st.st_mode) || st.st_dev != device_)
      return S_ISREG(st.st_mode) ? Read::kAbsent : (*why = notRegular(st.st_mode), Read::kFailed);
    known = read_.find({st.st_dev, st.st_ino});
    if (known == read_.end() && (fd = openInRoot(fd_, path, flags)) < 0) return unopened(path, why);
  }
  if (known == read_.end()) {
    std::string bytes;
    const Read r = readOpen(fd, static_cast<std::size_t>(st.st_size), cap, &bytes, why);
    if (r != Read::kOk) return r;
    if (!hold(bytes.size())) return *why = error_.why, Read::kFailed;
    known = read_.emplace(std::pair(st.st_dev, st.st_ino), std::move(bytes)).first;
  }
  if (known->second.size() > cap) return *why = largerThan(cap), Read::kFailed;
  *text = taken != nullptr ? taken : &known->second;
  if (taken == nullptr) return Read::kOk;
  *taken = std::move(known->second);  // the caller's alone: another name reads it again
  read_.erase(known);
  return Read::kOk;
}

Read TreeMachine::file(const std::string& path, std::size_t cap, std::string* text,
                       std::string* why) {
  // The bytes are the caller's, and kept once more in `saved`, not in
  // read_ too: another name for the file reads it again.
  const std::string* found = nullptr;
  text->clear();
  Read r = find(path, cap, &found, why, text);
  if (r == Read::kOk && !hold(path.size() + text->size())) r = (*why = error_.why, Read::kFailed);
  if (r == Read::kFailed) text->clear();
  if (r != Read::kAbsent)
    (r == Read::kOk ? saved_.files : saved_.failures)[path] = r == Read::kOk ? *text : *why;
  return r;
}

Read TreeMachine::entries(const std::string& path, std::vector<std::string>* names) {
  const Read r = listFolder(fd_, path, names);
  std::size_t bytes = path.size();
  for (const std::string& name : *names)
    bytes += name.size() + sizeof name;
  if (r != Read::kOk) return r;
  if (!hold(bytes)) return errno = EFBIG, Read::kFailed;
  saved_.folders[path] = *names;
  return r;
}

}  // namespace detail
}  // namespace xrprocdetector
