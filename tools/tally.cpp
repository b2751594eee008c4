#include "tally.h"

#include <algorithm>

namespace xrprocdetect {

namespace {

const char* const kFieldNames[] = {"packages", "cores", "logical processors", "hyper-threading",
                                   "virtual machine"};
const char* const kHeader[] = {"GENERATION", "PACKAGES",        "CORES",
                               "LOGICAL",    "HYPER-THREADING", "VIRTUAL MACHINE"};

}  // namespace

void Tally::add(const std::string& input, const std::vector<Detection>& rows,
                const KernelTopology& kernel) {
  ++inputs_;
  const std::int32_t online = kernel.logicalProcessors.value_or(0);
  limited_ += kernel.usableProcessors.value_or(online) < online;
  quota_ += kernel.cpuQuota.has_value();
  below_ += kernel.effectiveProcessors.value_or(online) < online;
  for (const Detection& row : rows) {
    auto line = std::find_if(lines_.begin(), lines_.end(),
                             [&](const Line& l) { return l.generation == row.generation; });
    if (line == lines_.end()) line = lines_.insert(lines_.end(), Line{row.generation, {}});
    const Agreement a = compare(row, kernel);
    const Same same[kFields] = {a.packages, a.cores, a.logicalProcessors, a.smt, a.hypervisor};
    for (int f = 0; f < kFields; ++f) {
      Field& field = line->fields[f];
      field.unknown += same[f] == Same::kUnknown;
      field.agree += same[f] == Same::kYes;
      if (same[f] == Same::kNo) field.differ.push_back(input);
    }
  }
}

std::string Tally::text() const {
  std::string out = "Agreement with the kernel over " + std::to_string(inputs_) + " input" +
                    (inputs_ == 1 ? "" : "s") +
                    ", as agree/differ/not compared (a field that the kernel\n"
                    "or the generation does not give is not compared).\n";
  if (failed_ > 0)
    out += std::to_string(failed_) + " more could not be read (see standard error).\n";
  out += "\n";
  std::vector<std::vector<std::string>> cells(
      1, std::vector<std::string>(std::begin(kHeader), std::end(kHeader)));
  for (const Line& line : lines_) {
    cells.push_back({generationName(line.generation)});
    for (const Field& f : line.fields)
      cells.back().push_back(std::to_string(f.agree) + "/" + std::to_string(f.differ.size()) + "/" +
                             std::to_string(f.unknown));
  }
  out += aligned(cells, nullptr);
  std::string differing;
  for (const Line& line : lines_) {
    for (int f = 0; f < kFields; ++f) {
      const std::vector<std::string>& names = line.fields[f].differ;
      if (names.empty()) continue;
      differing += std::string(generationName(line.generation)) + " " + kFieldNames[f] + ":";
      for (const std::string& name : names)
        differing += " " + name;
      differing += "\n";
    }
  }
  if (!differing.empty()) out += "\nInputs that differ from the kernel:\n" + differing;
  out += "\nWhat the processes may use: " + std::to_string(limited_) +
         " with fewer usable processors than online ones, " + std::to_string(quota_) +
         " with a CPU quota, " + std::to_string(below_) +
         " with fewer effective processors than online ones.\n";
  return out;
}

// One flat row a generation and field, as a fleet's queries select them.
std::string Tally::json() const {
  static const char* const kKeys[] = {"packages", "cores", "logicalProcessors", "smt",
                                      "virtualMachine"};
  std::string out;
  for (std::size_t i = 0; i < lines_.size() * kFields; ++i) {
    const Field& field = lines_[i / kFields].fields[i % kFields];
    JsonObject o;
    o.number("schemaVersion", 2);
    o.string("generation", generationName(lines_[i / kFields].generation));
    o.string("field", kKeys[i % kFields]);
    std::string names;
    for (const std::string& name : field.differ)
      names += (names.empty() ? "" : ", ") + quoted(name);
    for (const auto& [key, n] : {std::pair{"agree", field.agree},
                                 {"differ", static_cast<int>(field.differ.size())},
                                 {"notCompared", field.unknown},
                                 {"inputs", inputs_},
                                 {"unreadable", failed_},
                                 {"fewerUsable", limited_},
                                 {"withQuota", quota_},
                                 {"fewerEffective", below_}})
      o.number(key, n);
    o.add("differingInputs", "[" + names + "]");
    out += o.done() + "\n";
  }
  return out;
}

}  // namespace xrprocdetect
