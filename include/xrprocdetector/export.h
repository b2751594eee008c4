// What the shared library exports. It is built with hidden visibility: only
// what this macro marks is part of its interface, so its insides can change
// without touching the programs that link it.
#ifndef XRPROCDETECTOR_EXPORT_H
#define XRPROCDETECTOR_EXPORT_H

#define XRPROCDETECTOR_API __attribute__((visibility("default")))

#endif  // XRPROCDETECTOR_EXPORT_H
