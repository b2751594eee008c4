// Offline counting: run the /proc/cpuinfo scans over another text.
//
// While an XrCpuinfoRedirect lives, every /proc/cpuinfo scan that runs on the
// thread that created it reads the given file or text instead of the live
// /proc/cpuinfo. Nothing else changes: the same words, counts, messages and
// results as on a machine whose /proc/cpuinfo held that text. Redirects nest;
// the innermost one wins until it ends. Other threads are not affected.
#ifndef XRPROCDETECTOR_XRPROCDETECTOR_SOURCE_H
#define XRPROCDETECTOR_XRPROCDETECTOR_SOURCE_H

#include <string>

class XrCpuinfoRedirect {
 public:
  enum Kind {
    kFile,  // value is a path, opened by each scan as /proc/cpuinfo would be
    kText,  // value is the text itself
  };

  XrCpuinfoRedirect(Kind kind, std::string value);
  // The text *text, which must outlive the redirect: nothing is copied.
  explicit XrCpuinfoRedirect(const std::string* text);
  // Gives the thread back the source it had before. Redirects must end in
  // the reverse order of their creation (as scoped objects do).
  ~XrCpuinfoRedirect();
  XrCpuinfoRedirect(const XrCpuinfoRedirect&) = delete;
  XrCpuinfoRedirect& operator=(const XrCpuinfoRedirect&) = delete;

  Kind kind() const { return kind_; }
  const std::string& value() const { return kind_ == kText && text_ != nullptr ? *text_ : value_; }

  // The innermost redirect of the calling thread, or null for /proc/cpuinfo.
  static const XrCpuinfoRedirect* active();

 private:
  Kind kind_;
  std::string value_;
  const std::string* text_ = nullptr;  // a text not copied
  const XrCpuinfoRedirect* previous_;
};

#endif  // XRPROCDETECTOR_XRPROCDETECTOR_SOURCE_H
