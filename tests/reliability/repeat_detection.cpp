// xrprocdetector_repeat_detection DATA_DIR ROUNDS
//
// Runs every generation ROUNDS times over each /proc/cpuinfo fixture of
// DATA_DIR, from the file and from the text, with debug output at level 2
// going to /dev/null, and fails (exit 1) if any round counts differently from
// the first. Made to run under Valgrind's memcheck, which then reports any
// memory that repeated detection loses:
//
//   valgrind --tool=memcheck --leak-check=full --error-exitcode=1
//       --errors-for-leak-kinds=definite,indirect
//       xrprocdetector_repeat_detection tests/data 3
//
// The default detector's full detection runs on the fixtures that name
// physical ids, and once per round on one that names none, which takes it
// through CPUID, affinity pinning and the VMware probe. That one runs on a
// thread of its own each time: a probe that faulted leaves SIGSEGV blocked in
// its thread, and a second fault there would end the process.
#include <dirent.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "xrprocdetector/xrprocdetector_legacy_53.h"
#include "xrprocdetector/xrprocdetector_legacy_6x.h"
#include "xrprocdetector/xrprocdetector_linux32.h"
#include "xrprocdetector/xrprocdetector_linux32_70.h"
#include "xrprocdetector/xrprocdetector_source.h"

namespace {

FILE* gDevNull = nullptr;

// The counts and status of one detection, as one line of text.
std::string outcome(XrProcDetector& d, int status) {
  return std::to_string(status) + " " + std::to_string(d.logicalCount) + " " +
         std::to_string(d.physicalCount) + " " + std::to_string(d.coreCount) + " " +
         std::to_string(d.hyperThreadState) + " " + std::to_string(d.vmState);
}

// Every generation over the current source; the default detector's full
// detection only when `withPlatform`.
std::vector<std::string> detectAll(bool withPlatform) {
  std::vector<std::string> out;
  {
    XrProcDetectorLegacy_53 d(tzDebugTrace, 0, tzProcInfo53, gDevNull, nullptr);
    out.push_back(outcome(d, d.getProcData()));
  }
  for (auto index : {tzProcInfo60, tzProcInfo61}) {
    XrProcDetectorLegacy_6x d(tzDebugTrace, 0, index, gDevNull, nullptr);
    out.push_back(outcome(d, d.getProcData()));
  }
  {
    XrProcDetectorLinux32_70 d(tzDebugTrace, 0, tzProcInfo70, gDevNull, nullptr);
    out.push_back(outcome(d, d.getProcData()));
    d.printSummary();
  }
  {
    XrProcDetectorLinux32 d(tzDebugTrace, 0, tzProcInfo71, gDevNull, nullptr);
    out.push_back(outcome(d, d.platformProcInfo()));
  }
  if (withPlatform) {
    std::unique_ptr<XrProcDetector> d(getOSProcDetector());
    out.push_back(outcome(*d, d->getProcData()));
  }
  return out;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::vector<std::string> fixtures(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (const dirent* e = readdir(d)) {
      const std::string name = e->d_name;
      if (name.size() > 8 && name.compare(name.size() - 8, 8, ".cpuinfo") == 0)
        names.push_back(dir + "/" + name);
    }
    closedir(d);
  }
  return names;
}

// One round over every fixture, as file and as text.
std::vector<std::string> round(const std::vector<std::string>& files) {
  std::vector<std::string> all;
  for (const auto& path : files) {
    const std::string text = readFile(path);
    const bool namesPackages = text.find("physical id") != std::string::npos;
    for (auto kind : {XrCpuinfoRedirect::kFile, XrCpuinfoRedirect::kText}) {
      const XrCpuinfoRedirect redirect(kind, kind == XrCpuinfoRedirect::kFile ? path : text);
      for (auto& line : detectAll(namesPackages))
        all.push_back(path + ": " + line);
    }
  }
  // CPUID, affinity and the VMware probe, on a fresh thread.
  std::string viaCpuid;
  std::thread([&] {
    const XrCpuinfoRedirect redirect(XrCpuinfoRedirect::kText, "processor\t: 0\n");
    std::unique_ptr<XrProcDetector> d(getOSProcDetector());
    viaCpuid = outcome(*d, d->getProcData());
  }).join();
  all.push_back("cpuid: " + viaCpuid);
  return all;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 || std::atoi(argv[2]) < 1) {
    std::fprintf(stderr, "usage: %s DATA_DIR ROUNDS\n", argv[0]);
    return 2;
  }
  const auto files = fixtures(argv[1]);
  if (files.empty()) {
    std::fprintf(stderr, "%s: no .cpuinfo files in %s\n", argv[0], argv[1]);
    return 2;
  }
  gDevNull = std::fopen("/dev/null", "w");
  const int rounds = std::atoi(argv[2]);
  const auto first = round(files);
  int failed = 0;
  for (int i = 1; i < rounds; ++i) {
    const auto again = round(files);
    if (again != first) {
      std::fprintf(stderr, "round %d counted differently from round 0\n", i);
      ++failed;
    }
  }
  if (gDevNull != nullptr) std::fclose(gDevNull);
  std::printf("%zu detections a round, %d rounds: %d passed, %d failed\n", first.size(), rounds,
              rounds - failed, failed);
  return failed == 0 ? 0 : 1;
}
