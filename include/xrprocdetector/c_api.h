/* SPDX-License-Identifier: Apache-2.0 */
/**
 * \file
 * xrprocdetector from C (C99) and any language with a C foreign function
 * interface: the topology as processor sets, the processor budget, every
 * generation's detection, snapshots. A thin layer over detect.h: the same
 * answers, computed by the same code.
 *
 * \code
 * #include <xrprocdetector/c_api.h>
 * printf("threads to start: %d\n", xrpd_effective_processors());
 * \endcode
 *
 * Conventions:
 * - Everything with a lifetime is an opaque handle, made by a function
 *   whose name ends in _open or _read and ended by the matching _close.
 * - Answers are plain structs whose first member, `size`, the caller sets
 *   to sizeof the struct it knows; the library fills that much and no
 *   more, so fields added later never reach an older caller's memory.
 * - Functions that can fail return 0 on success (or a handle, or NULL),
 *   and, where they take `char** error`, set *error to a message that the
 *   caller frees with xrpd_free (or leave it NULL). Strings in answers
 *   (`note`, `error`) are freed with xrpd_free too.
 * - Nothing is thrown across this interface.
 */
#ifndef XRPROCDETECTOR_C_API_H
#define XRPROCDETECTOR_C_API_H

#include <stddef.h>
#include <stdint.h>

#include <xrprocdetector/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/** The library's version, such as "1.1.0". */
XRPROCDETECTOR_API const char* xrpd_version(void);

/** Frees a string the library gave the caller; NULL is accepted. */
XRPROCDETECTOR_API void xrpd_free(void* pointer);

/**
 * What a host should size a pool of busy threads by, on this machine: the
 * usable processors capped by the CPU quota, at least 1. Never fails: where
 * nothing can be read, the online count, or 1.
 */
XRPROCDETECTOR_API int xrpd_effective_processors(void);

/** A set of processor numbers below the kernel's limit of 8192. */
typedef struct xrpd_cpuset {
  uint64_t bits[128]; /**< processor N is bit N % 64 of bits[N / 64] */
} xrpd_cpuset;

/** How many processors `set` holds. */
XRPROCDETECTOR_API int xrpd_cpuset_count(const xrpd_cpuset* set);
/** 1 when `set` holds processor `cpu`, else 0. */
XRPROCDETECTOR_API int xrpd_cpuset_contains(const xrpd_cpuset* set, unsigned cpu);
/** `set` in the kernel's list format ("0-3,8"); free it with xrpd_free. */
XRPROCDETECTOR_API char* xrpd_cpuset_to_list(const xrpd_cpuset* set);

/** What detection reads: this machine, a saved /proc/cpuinfo, a snapshot. */
typedef struct xrpd_source xrpd_source;

/** This machine. */
XRPROCDETECTOR_API xrpd_source* xrpd_source_live(void);
/** A /proc/cpuinfo text of `length` bytes, copied. */
XRPROCDETECTOR_API xrpd_source* xrpd_source_cpuinfo_text(const char* text, size_t length);
/** The file at `path`, read now, as a /proc/cpuinfo text; NULL and *error when it cannot be. */
XRPROCDETECTOR_API xrpd_source* xrpd_source_cpuinfo_file(const char* path, char** error);
/** The snapshot or system root in `dir`; NULL and *error when it cannot be read. */
XRPROCDETECTOR_API xrpd_source* xrpd_source_snapshot(const char* dir, char** error);
XRPROCDETECTOR_API void xrpd_source_close(xrpd_source* source);

/** A generation of the detection algorithm. */
typedef enum xrpd_generation {
  XRPD_GENERATION_53,
  XRPD_GENERATION_60,
  XRPD_GENERATION_61,
  XRPD_GENERATION_70,
  XRPD_GENERATION_DEFAULT
} xrpd_generation;

/** What one generation found (see Detection in detect.h). */
typedef struct xrpd_detection {
  size_t size; /**< set by the caller: sizeof(xrpd_detection) */
  int counted; /**< 0: the source lacks what the generation reads (`note`) */
  int result;  /**< what getProcData returned; negative: not to be trusted */
  int32_t packages;
  int32_t cores;
  int32_t logical_processors;
  int32_t hyper_threading;  /**< hyperThreadState: 0, 1, 2, 3 or 15 */
  int32_t vm;               /**< vmState: 0 none, 1 VMware, 15 not determined */
  int32_t reported_verdict; /**< the verdict the generation's report states, -1 none */
  int32_t ended_by;         /**< the default detector: 1 /proc/cpuinfo, 2 CPUID, 3 logical only */
  char* note;               /**< why it did not count; free with xrpd_free */
  char* error;              /**< why the source could not be read; free with xrpd_free */
} xrpd_detection;

/**
 * Runs `generation` on `source` (NULL: this machine), as detect() does: 0,
 * with *out filled, when it ran, counted or not; -1 when `out` or its size
 * is wrong, or memory ran out.
 */
XRPROCDETECTOR_API int xrpd_detect(xrpd_generation generation, const xrpd_source* source,
                                   xrpd_detection* out);

/** The machine as processor sets (see Topology in detect.h). */
typedef struct xrpd_topology xrpd_topology;

/** Reads the topology of `source` (NULL: this machine); NULL and *error when memory runs out. */
XRPROCDETECTOR_API xrpd_topology* xrpd_topology_read(const xrpd_source* source, char** error);
XRPROCDETECTOR_API void xrpd_topology_close(xrpd_topology* topology);

/** A topology's counts and sets; -1 for what the files do not tell. */
typedef struct xrpd_topology_info {
  size_t size; /**< set by the caller: sizeof(xrpd_topology_info) */
  xrpd_cpuset online;
  xrpd_cpuset offline;
  xrpd_cpuset usable;
  int32_t packages;
  int32_t cores;
  int32_t core_kinds; /**< 0 on one kind of core */
  int32_t processors; /**< entries for xrpd_topology_processor */
  double cpu_quota;   /**< in processors; 0 when there is none */
  int32_t effective_processors;
  int32_t smt;                     /**< 0 on, 1 off, 2 not supported, -1 not known */
  int32_t hypervisor;              /**< 0 none, 1 VMware, 2 another, -1 not known */
  const char* hypervisor_vendor;   /**< lscpu's word, "none", or NULL; the topology's own */
  const char* virtualization_type; /**< "full", "para" or NULL */
  const char* container;           /**< "docker", ..., "none" or NULL */
  const char* error;               /**< the first broken file, named, or NULL */
} xrpd_topology_info;

XRPROCDETECTOR_API int xrpd_topology_get(const xrpd_topology* topology, xrpd_topology_info* out);

/** Where one processor stands; indices from 0, -1 where not known. */
typedef struct xrpd_processor {
  size_t size; /**< set by the caller: sizeof(xrpd_processor) */
  uint32_t cpu;
  int32_t package;
  int32_t die;
  int32_t core;
  int32_t thread;
  int32_t kind;
  int online;
  int usable;
} xrpd_processor;

/** The `index`th processor, in increasing order of number; -1 past the last. */
XRPROCDETECTOR_API int xrpd_topology_processor(const xrpd_topology* topology, size_t index,
                                               xrpd_processor* out);

/** What the `index`th member of a topology's list of sets is. */
typedef enum xrpd_set_list { XRPD_PACKAGES, XRPD_CORES, XRPD_CORE_KINDS } xrpd_set_list;

/**
 * The processors of the `index`th package, core, or kind of core (fastest
 * first; *name, where given, its name, the topology's own) into *out; -1
 * past the last.
 */
XRPROCDETECTOR_API int xrpd_topology_set(const xrpd_topology* topology, xrpd_set_list list,
                                         size_t index, xrpd_cpuset* out, const char** name);

/** The processor budget, kept current (see ProcessorBudget in detect.h). */
typedef struct xrpd_budget xrpd_budget;

/** A budget reading. */
typedef struct xrpd_budget_reading {
  size_t size; /**< set by the caller: sizeof(xrpd_budget_reading) */
  int usable_processors;
  double cpu_quota; /**< in processors; 0 when there is none */
  int effective_processors;
  xrpd_cpuset usable;
  char* error; /**< the first file that could not be read, named, or NULL; free with xrpd_free */
} xrpd_budget_reading;

/** Finds and opens the files that bound this process; NULL and *error when it cannot. */
XRPROCDETECTOR_API xrpd_budget* xrpd_budget_open(char** error);
/** Reads the budget again: 0, or -1 when `out` or its size is wrong. Safe from several threads. */
XRPROCDETECTOR_API int xrpd_budget_read(xrpd_budget* budget, xrpd_budget_reading* out);
XRPROCDETECTOR_API void xrpd_budget_close(xrpd_budget* budget);

/** Saves this machine as a snapshot in `dir` (see saveSnapshot in detect.h): 0, or -1 and *error.
 */
XRPROCDETECTOR_API int xrpd_save_snapshot(const char* dir, char** error);

#ifdef __cplusplus
}
#endif

#endif /* XRPROCDETECTOR_C_API_H */
