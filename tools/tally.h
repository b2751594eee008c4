// --tally: how many inputs each generation's fields agree with the kernel
// on, and which inputs they differ on.
#ifndef XRPROCDETECTOR_TOOLS_TALLY_H
#define XRPROCDETECTOR_TOOLS_TALLY_H

#include <string>
#include <vector>

#include "report.h"

namespace xrprocdetect {

class Tally {
 public:
  // One input's rows, and the kernel's topology of it.
  void add(const std::string& input, const std::vector<Detection>& rows,
           const KernelTopology& kernel);
  // An input that could not be read.
  void failed() { ++failed_; }
  std::string text() const;
  // The same as JSON Lines: one object a generation and field.
  std::string json() const;

 private:
  static constexpr int kFields = 5;  // packages, cores, logical, SMT, VM
  struct Field {
    int agree = 0;
    int unknown = 0;
    std::vector<std::string> differ;
  };
  struct Line {
    Generation generation;
    Field fields[kFields];
  };
  std::vector<Line> lines_;
  int inputs_ = 0;
  int failed_ = 0;
  int limited_ = 0;  // inputs with fewer usable processors than online ones
  int quota_ = 0;    // inputs with a CPU quota
  int below_ = 0;    // inputs whose effective processors are fewer than the online ones
};

}  // namespace xrprocdetect

#endif  // XRPROCDETECTOR_TOOLS_TALLY_H
