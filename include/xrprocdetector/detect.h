/// \file
/// xrprocdetector's whole C++ interface for host programs, in one include:
/// processor sets (cpuset.h), the topology and what this process may use
/// (topology.h), the processor budget (budget.h), the generations of the
/// detection algorithm (generations.h), sources and snapshots
/// (snapshot.h). Each is an inline layer over the C interface (c_api.h),
/// so that the shared library's interface is the C one and the detector
/// classes alone.
///
/// \code
/// #include <xrprocdetector/detect.h>
/// std::printf("threads to start: %d\n", xrprocdetector::effectiveProcessors());
/// \endcode
#ifndef XRPROCDETECTOR_DETECT_H
#define XRPROCDETECTOR_DETECT_H

#include <xrprocdetector/budget.h>
#include <xrprocdetector/cpuset.h>
#include <xrprocdetector/error.h>
#include <xrprocdetector/generations.h>
#include <xrprocdetector/snapshot.h>
#include <xrprocdetector/topology.h>

#endif  // XRPROCDETECTOR_DETECT_H
