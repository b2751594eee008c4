/// \file
/// What went wrong, in one shape for every result and every call of the C++
/// interface that can fail.
///
/// \code
/// #include <xrprocdetector/topology.h>
/// const xrprocdetector::Topology t = xrprocdetector::topology();
/// if (!t.error.empty()) std::fprintf(stderr, "%s\n", t.error.message().c_str());
/// \endcode
#ifndef XRPROCDETECTOR_ERROR_H
#define XRPROCDETECTOR_ERROR_H

#include <string>

#include <xrprocdetector/c_api.h>

namespace xrprocdetector {

/// \defgroup errors Errors
/// Nothing in the C++ interface throws (but std::bad_alloc, where a copy
/// into the host's own memory runs out of it): every failure comes back as
/// an Error, in the result it concerns or through an `Error*` the caller
/// gives. An empty Error is no failure.
/// @{

/// What went wrong: the step, the file to blame, and why.
struct Error {
  std::string what;  ///< the step that failed where the reason does not say it ("cannot create")
  std::string file;  ///< the file to blame, as messages name it; empty where no one file is
  std::string why;   ///< why; empty when nothing went wrong
  bool empty() const noexcept { return why.empty(); }
  /// "WHAT FILE: WHY", "FILE line N: ..." where a line is to blame, or WHY
  /// alone without a file.
  std::string message() const {
    if (file.empty()) return why;
    return (what.empty() ? "" : what + " ") + file +
           (why.compare(0, 5, "line ") == 0 ? " " : ": ") + why;
  }
};

/// @}

/// The inline layer's own helpers over the C interface.
namespace bridge {

/// The text of a string the library made, freed.
inline std::string take(char* text) {
  std::string out = text == nullptr ? "" : text;
  xrpd_free(text);
  return out;
}

/// The parts of a message the library made; not freed.
inline Error errorOf(const char* message) {
  if (message == nullptr) return {};
  return {xrpd_error_part(message, XRPD_ERROR_WHAT), xrpd_error_part(message, XRPD_ERROR_FILE),
          xrpd_error_part(message, XRPD_ERROR_WHY)};
}

/// The parts of a message the library made, freed.
inline Error takeError(char* message) {
  Error e = errorOf(message);
  xrpd_free(message);
  return e;
}

}  // namespace bridge
}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_ERROR_H
