#include "xrprocdetector/xrprocdetector.h"

#include <unistd.h>

#include <cstdarg>

#include "legacy/verdict.h"
#include "machine/machine.h"
#include "xrprocdetector/xrprocdetector_linux32.h"

using xrprocdetector::detail::narrow32;

// ---------------------------------------------------------------------------
// Debug output

XrProcObject::XrProcObject(tz_debuglevel level, unsigned echo, FILE* stream, char* text)
    : debugLevel(level), debugStream(stream), callerText(text), echoToStdout(echo) {}

void XrProcObject::tzPrint(tz_debuglevel level, const char* format, ...) {
  if (level != 0 && debugLevel < level) return;
  va_list args;
  if (level == 0 || echoToStdout != 0) {
    va_start(args, format);
    vfprintf(stdout, format, args);
    va_end(args);
  }
  // Only a level-0 message on an object of negative level gets here and
  // stops: it has reached standard output and goes no further.
  if (debugLevel < level) return;
  if (debugStream != nullptr) {
    va_start(args, format);
    vfprintf(debugStream, format, args);
    va_end(args);
  }
}

int XrProcObject::hexify(char* out, const char* in, int length) {
  static const char HEXDIGIT[] = "0123456789ABCDEF";
  // In place: from the last byte back, so that no input byte is
  // overwritten before it has been read; the zero byte lands at out[0].
  const bool inPlace = out == in;
  for (int k = 0; k < length; ++k) {
    const int i = inPlace ? length - 1 - k : k;
    // The high digit is taken from the byte as unsigned, so bytes of 0x80
    // and above give 8 to F rather than an index before the table.
    const unsigned char byte = static_cast<unsigned char>(in[i]);
    out[2 * i] = HEXDIGIT[byte >> 4];
    out[2 * i + 1] = HEXDIGIT[byte & 0x0F];
  }
  out[inPlace || length <= 0 ? 0 : 2 * length] = '\0';
  return 2 * length;
}

// ---------------------------------------------------------------------------
// The detector base class

XrProcDetector::XrProcDetector(tz_debuglevel level, unsigned echo, FILE* stream, char* text)
    : XrProcDetector(level, echo, tzProcInfo71, stream, text) {}

XrProcDetector::XrProcDetector(tz_debuglevel level, unsigned echo, __tz_procInfoIndex index,
                               FILE* stream, char* text)
    : XrProcObject(level, echo, stream, text),
      logicalCount(65535),
      physicalCount(65535),
      spareCount1(65535),
      spareCount2(65535),
      coreCount(65535),
      hyperThreadState(15),
      vmState(15),
      procInfoIndex(index) {}

int XrProcDetector::getProcData() {
  return -1;
}

int XrProcDetector::printSummary() {
  if (debugLevel <= 0) return 0;
  xrprocdetector::detail::writeSummary(*this, logicalCount, physicalCount, coreCount);
  return 0;
}

namespace {
const char kConfiguredFormat[] = "Number of configured processors: %d\n";
const char kOnlineFormat[] = "Number of online processors: %d\n";
}  // namespace

int XrProcDetector::bosGetLogicalProcessorCount() {
  return narrow32(
      xrprocdetector::detail::readProcessorCounts(*this, kConfiguredFormat, kOnlineFormat)
          .configured);
}

int XrProcDetector::bosGetOnlineProcessorCount() {
  return narrow32(
      xrprocdetector::detail::readProcessorCounts(*this, kConfiguredFormat, kOnlineFormat).online);
}

int XrProcDetector::platformProcInfo() {
  const int count = bosGetLogicalProcessorCount();
  coreCount = count;
  logicalCount = count;
  physicalCount = count;
  return 0;
}

int XrProcDetector::platformHyperThreading() {
  hyperThreadState =
      xrprocdetector::detail::writeSummary(*this, logicalCount, physicalCount, coreCount).state;
  return 0;
}

int XrProcDetector::platformVM() {
  return 0;
}

int XrProcDetector::getUnixProcData() {
  if (platformProcInfo() < 0) return -1;
  platformHyperThreading();
  platformVM();
  return 0;
}

XrProcDetector* getOSProcDetector() {
  return new XrProcDetectorLinux32(tzDebugNone, 0, nullptr, nullptr);
}

// ---------------------------------------------------------------------------
// The hyper-threading verdict and the summary

namespace xrprocdetector {
namespace detail {

Verdict hyperThreadingVerdict(std::int32_t logical, std::int32_t physical, std::int32_t cores) {
  // Indexed [state][multiCore]. Two blanks follow the verdict word, and one
  // follows "Yes" but not "No" in the multi-core line.
  static const char* const kTexts[3][2] = {
      {"\tHyper-Threading Technology: not capable  \n\tMulti-core: No\n\tMulti-processor: ",
       "\tHyper-Threading Technology: not capable  \n\tMulti-core: Yes \n\tMulti-processor: "},
      {"\tHyper-Threading Technology: Disabled  \n\tMulti-core: No\n\tMulti-processor: ",
       "\tHyper-Threading Technology: Disabled  \n\tMulti-core: Yes \n\tMulti-processor: "},
      {"\tHyper-Threading Technology: Enabled  \n\tMulti-core: No\n\tMulti-processor: ",
       "\tHyper-Threading Technology: Enabled  \n\tMulti-core: Yes \n\tMulti-processor: "},
  };
  // Truncating division, and only when there are at least two cores: 6
  // logical processors on 4 cores give 1, "not capable".
  const std::int32_t perCore = cores > 1 ? logical / cores : logical;
  Verdict v{};
  v.state = perCore == 1 ? 0 : (cores >= logical ? 1 : 2);
  v.multiCore = cores > physical;
  v.multiProcessor = physical > 1;
  v.text = kTexts[v.state][v.multiCore ? 1 : 0];
  return v;
}

ProcessorCounts readProcessorCounts(XrProcObject& out, const char* configuredFormat,
                                    const char* onlineFormat) {
  ProcessorCounts counts{};
  counts.configured = xrprocdetector::detail::machine().processorCount(_SC_NPROCESSORS_CONF);
  out.tzPrint(tzDebugSteps, configuredFormat, narrow32(counts.configured));
  counts.online = xrprocdetector::detail::machine().processorCount(_SC_NPROCESSORS_ONLN);
  out.tzPrint(tzDebugSteps, onlineFormat, narrow32(counts.online));
  return counts;
}

void writeTotals(XrProcObject& out, std::int32_t physical, std::int32_t logical,
                 std::int32_t cores) {
  out.tzPrint(tzDebugSteps, "\tTotal physical processors = %d \n", physical);
  out.tzPrint(tzDebugSteps, "\tTotal logical processors = %d \n", logical);
  out.tzPrint(tzDebugSteps, "\tTotal cores = %d \n", cores);
}

Verdict writeSummary(XrProcObject& out, std::int32_t logical, std::int32_t physical,
                     std::int32_t cores) {
  const Verdict v = hyperThreadingVerdict(logical, physical, cores);
  out.tzPrint(tzDebugSteps, "%s%s\n", v.text, v.multiProcessor ? "Yes" : "No");
  writeTotals(out, physical, logical, cores);
  return v;
}

}  // namespace detail
}  // namespace xrprocdetector
