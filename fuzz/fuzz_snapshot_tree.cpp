// Whole snapshot trees made from the input: files of any size and content,
// directories, FIFOs and symbolic links (to a device, a FIFO, a directory or
// each other) at the paths a snapshot or a system root has, the control
// groups', the PCI devices' and the container managers' among them. Loading the
// tree, reading its kernel row and running every generation on it must not
// crash, hang or block: a part that is not a regular file is refused.
//
// The input is a list of entries: a kind byte, a path byte, a two-byte
// length, then that many bytes of content. Besides files of any content,
// an entry may write numbers at the edges of their types to the quota,
// period, frequency and count files.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <xrprocdetector/detect.h>

namespace {

// The lines of fuzz/NAME but its comments ("#").
std::vector<std::string> lines(const char* name) {
  std::ifstream in(std::string(XRPROCDETECTOR_FUZZ_DIR "/") + name);
  std::vector<std::string> out;
  for (std::string line; std::getline(in, line);)
    if (!line.empty() && line[0] != '#') out.push_back(line);
  if (out.empty()) std::abort();
  return out;
}

const std::vector<std::string> kPaths = lines("tree_paths.txt");
const std::vector<std::string> kEdges = lines("edges.txt");

std::string edge(const std::string& body, std::size_t i) {
  return kEdges[(i < body.size() ? static_cast<std::uint8_t>(body[i]) : 0) % kEdges.size()];
}

// What every tree has unless an entry made it otherwise: two processors on
// two cores, and a process in a cgroup of each version, so that the limits
// and frequencies that entries write are read.
const char* const kSkeleton[][2] = {
    {"sys/devices/system/cpu/online", "0-1"},
    {"sys/devices/system/cpu/cpu0/topology/core_cpus_list", "0"},
    {"sys/devices/system/cpu/cpu1/topology/thread_siblings_list", "1"},
    {"proc/self/mountinfo",
     "30 25 0:26 / /sys/fs/cgroup rw - cgroup2 cgroup2 rw\n"
     "31 25 0:27 / /sys/fs/cgroup/cpu rw - cgroup cgroup rw,cpu\n"},
    {"proc/self/cgroup", "0::/a\n4:cpu:/\n"}};

void place(const std::string& root, std::uint8_t kind, const std::string& path,
           const std::string& body) {
  const std::string at = root + "/" + path;
  std::error_code ignored;  // a parent that an entry made a file, a FIFO or a link stays so
  std::filesystem::create_directories(std::filesystem::path(at).parent_path(), ignored);
  switch (kind % 7) {
    case 0:
    case 1: {  // a regular file, the most common part; only a new one, as
               // opening a FIFO put there before would wait for a reader
      const int fd = ::open(at.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0644);
      if (fd < 0) return;
      [[maybe_unused]] const ssize_t written = ::write(fd, body.data(), body.size());
      ::close(fd);
      return;
    }
    case 2:
      ::mkdir(at.c_str(), 0755);
      return;
    case 3:
      ::mkfifo(at.c_str(), 0644);
      return;
    case 4:
      ::symlink(body.empty() ? "/dev/zero" : "/dev/null", at.c_str());
      return;
    case 5:  // a link to another part of the tree, or to itself
      ::symlink((body.empty() ? path : kPaths[body.size() % kPaths.size()]).c_str(), at.c_str());
      return;
    default: {  // a number, a pair for cpu.max, or the metadata's counts
      const bool pair = at.size() > 7 && at.compare(at.size() - 7, 7, "cpu.max") == 0;
      const std::string number = edge(body, 0) + (pair ? " " + edge(body, 1) : "");
      return place(root, 0, path,
                   path != "xrprocdetect.json"
                       ? number
                       : "{\"configuredProcessors\": " + edge(body, 0) +
                             ", \"onlineProcessors\": " + edge(body, 1) + "}");
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  char dir[] = "/tmp/xrprocdetector-fuzz-XXXXXX";
  if (::mkdtemp(dir) == nullptr) return 0;
  for (std::size_t i = 0; i + 4 <= size;) {
    const std::uint8_t kind = data[i];
    const std::string& path = kPaths[data[i + 1] % kPaths.size()];
    const std::size_t length = std::min<std::size_t>(data[i + 2] | data[i + 3] << 8, size - i - 4);
    place(dir, kind, path, std::string(reinterpret_cast<const char*>(data + i + 4), length));
    i += 4 + length;
  }
  for (const auto& [file, text] : kSkeleton)
    place(dir, 0, file, text);
  std::string error;
  if (const auto source = xrprocdetector::Source::snapshot(dir, &error)) {
    const xrprocdetector::KernelTopology kernel = xrprocdetector::kernelTopology(*source);
    for (const auto g : {xrprocdetector::Generation::k53, xrprocdetector::Generation::k60,
                         xrprocdetector::Generation::k61, xrprocdetector::Generation::k70,
                         xrprocdetector::Generation::kDefault}) {
      const xrprocdetector::Detection d = xrprocdetector::detect(g, *source);
      xrprocdetector::compare(d, kernel);
    }
  } else if (error.empty()) {
    std::abort();  // a refusal always says why
  }
  std::error_code ignored;
  std::filesystem::remove_all(dir, ignored);  // links removed, never followed
  return 0;
}
