// What the test programs share: Google Test, the files and tables of
// tests/data, a detector of each generation, its counts, and a capture of
// what a detector writes.
#ifndef XRPROCDETECTOR_TESTS_SUPPORT_TEST_SUPPORT_H
#define XRPROCDETECTOR_TESTS_SUPPORT_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <regex>
#include <sstream>
#include <vector>

#include "support/cpuinfo_machine.h"
#include "xrprocdetector/xrprocdetector_legacy_53.h"
#include "xrprocdetector/xrprocdetector_legacy_6x.h"
#include "xrprocdetector/xrprocdetector_linux32.h"
#include "xrprocdetector/xrprocdetector_linux32_70.h"

namespace testsupport {

// The path of tests/data/NAME.
inline std::string fixture(const std::string& name) {
  return XRPROCDETECTOR_TEST_DATA "/" + name;
}

// The bytes of a file ("" when it cannot be read).
inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// tests/data/expected/NAME.txt without its lines that start with "#", and
// with @CONF@ and @ONLN@ replaced by this machine's configured and online
// processor counts.
inline std::string expected(const std::string& name) {
  const std::string conf = std::to_string(sysconf(_SC_NPROCESSORS_CONF));
  const std::string online = std::to_string(sysconf(_SC_NPROCESSORS_ONLN));
  std::string text = "\n" + readFile(fixture("expected/" + name + ".txt"));
  text = std::regex_replace(text, std::regex("\n#[^\n]*(?=\n)"), "").substr(1);
  text = std::regex_replace(text, std::regex("@CONF@"), conf);
  return std::regex_replace(text, std::regex("@ONLN@"), online);
}

// The rows of the table tests/data/NAME: each line that is neither blank
// nor a comment ("#"), split at each " | ". A table that cannot be read, or
// holds no row, fails the test.
inline std::vector<std::vector<std::string>> table(const std::string& name) {
  std::vector<std::vector<std::string>> rows;
  std::istringstream lines(readFile(fixture(name)));
  for (std::string line; std::getline(lines, line);) {
    if (line.empty() || line[0] == '#') continue;
    rows.emplace_back();
    for (std::size_t bar; (bar = line.find(" | ")) != std::string::npos; line.erase(0, bar + 3))
      rows.back().push_back(line.substr(0, bar));
    rows.back().push_back(line);
  }
  EXPECT_FALSE(rows.empty()) << name;
  return rows;
}

template <class Detector>
std::unique_ptr<XrProcDetector> make(tz_debuglevel level, FILE* stream, __tz_procInfoIndex index) {
  if (index == tzProcInfo71) return std::make_unique<Detector>(level, 0, stream, nullptr);
  return std::make_unique<Detector>(level, 0, index, stream, nullptr);
}

// A detector of `generation` ("5.3", "6.0", "6.1", "7.0" or "default"), made
// with constructor A when `index` is 4 (its default), with constructor B
// otherwise; 6.0 always gets index 1.
inline std::unique_ptr<XrProcDetector> makeDetector(const std::string& generation,
                                                    tz_debuglevel level, FILE* stream,
                                                    __tz_procInfoIndex index = tzProcInfo71) {
  if (generation == "5.3") return make<XrProcDetectorLegacy_53>(level, stream, index);
  if (generation[0] == '6')
    return make<XrProcDetectorLegacy_6x>(level, stream, generation == "6.0" ? tzProcInfo60 : index);
  if (generation == "7.0") return make<XrProcDetectorLinux32_70>(level, stream, index);
  return make<XrProcDetectorLinux32>(level, stream, index);
}

// "logical physical cores".
inline std::string counts(const XrProcDetector& d) {
  return std::to_string(d.logicalCount) + " " + std::to_string(d.physicalCount) + " " +
         std::to_string(d.coreCount);
}

// A scratch directory, removed with all it holds.
struct Scratch {
  Scratch()
      : path(std::filesystem::temp_directory_path() / ("scratch-" + std::to_string(getpid()))) {
    std::filesystem::remove_all(path);
    std::filesystem::create_directories(path);
  }
  ~Scratch() { std::filesystem::remove_all(path); }
  void write(const std::string& name, const std::string& text) const {
    std::filesystem::create_directories((path / name).parent_path());
    std::ofstream(path / name) << text;
  }
  std::filesystem::path path;
};

// Writes `text` into `file`, as echo does into the kernel's files; false
// where it cannot.
inline bool put(const std::string& file, const std::string& text) {
  return static_cast<bool>(std::ofstream(file) << text);
}

// The exit status of a child forked to run `body`, which returns it (128 +
// the signal's number for a child that a signal ended).
template <class Body>
int inChild(Body body) {
  const pid_t child = fork();
  if (child == 0) _exit(body());
  int status = -1;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Unblocks SIGSEGV in the calling thread, as a VMware probe that faulted
// leaves it blocked by design.
inline void unblockSegv() {
  sigset_t segv;
  sigemptyset(&segv);
  sigaddset(&segv, SIGSEGV);
  pthread_sigmask(SIG_UNBLOCK, &segv, nullptr);
}

// While it lives, each write to standard output or to stream() is kept in
// `log` as "out:TEXT|" or "stream:TEXT|", in the order written, and what
// goes to stream() also in `text`. Both are unbuffered.
struct OutputCapture {
  OutputCapture() { std::fflush(stdout), active = this, stdout = open("out:"); }
  ~OutputCapture() { std::fclose(stdout), stdout = saved, std::fclose(debug); }
  FILE* stream() const { return debug; }

  static FILE* open(const char* tag) {
    auto write = [](void* tag, const char* data, size_t size) -> ssize_t {
      if (*static_cast<char*>(tag) == 's') active->text.append(data, size);
      active->log.append(static_cast<char*>(tag)).append(data, size).append("|");
      return static_cast<ssize_t>(size);
    };
    FILE* f = fopencookie(const_cast<char*>(tag), "w", {nullptr, write, nullptr, nullptr});
    std::setvbuf(f, nullptr, _IONBF, 0);
    return f;
  }
  inline static OutputCapture* active;
  std::string text, log;
  FILE* saved = stdout;
  FILE* debug = open("stream:");
};

}  // namespace testsupport

#endif  // XRPROCDETECTOR_TESTS_SUPPORT_TEST_SUPPORT_H
