/* SPDX-License-Identifier: Apache-2.0 */
/**
 * \file
 * xrprocdetector's one interface, in C (C99), for C hosts and for every
 * language with a C foreign function interface: the topology as processor
 * sets, the processor budget, every generation's detection, snapshots. The
 * C++ headers (detect.h and the headers it includes) are an inline layer
 * over it: the same answers, computed by the same code.
 *
 * \code
 * #include <xrprocdetector/c_api.h>
 * printf("threads to start: %d\n", xrpd_effective_processors());
 * \endcode
 *
 * \defgroup xrpd_conventions Conventions of the C interface
 * Stated once, for every function here:
 * - Everything with a lifetime is an opaque handle, made by a function
 *   whose name ends in _open or _read and ended by the matching _close
 *   (which takes NULL). A source of NULL is this machine.
 * - Answers are plain structs whose first member, `size`, the caller sets
 *   to sizeof the struct it knows. The library fills the fields that both
 *   it and the caller know, never more, and writes back into `size` the
 *   size it filled (as sched_getattr does): a host built against a later
 *   header can tell which fields an older library left untouched.
 * - Functions that can fail return 0 on success and -1 on failure, or a
 *   handle and NULL. Where they take `char** error`, a failure sets *error
 *   (when `error` is not NULL) to a message the caller frees with
 *   xrpd_free. A message, there or in an answer's `error`, reads "WHAT
 *   FILE: WHY" (what failed, the file to blame, why); xrpd_error_part gives
 *   each part alone.
 * - Nothing is thrown across this interface, and no function keeps state
 *   beyond the handles the caller holds.
 * @{
 */
#ifndef XRPROCDETECTOR_C_API_H
#define XRPROCDETECTOR_C_API_H

#include <stddef.h>
#include <stdint.h>

#include <xrprocdetector/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/** The library's version, such as "2.0.0". */
XRPROCDETECTOR_API const char* xrpd_version(void);

/** Frees a string the library gave the caller; NULL is accepted. */
XRPROCDETECTOR_API void xrpd_free(void* pointer);

/** The parts of a message the library made. */
typedef enum xrpd_error_part_kind {
  XRPD_ERROR_WHAT, /**< the step that failed where the reason alone does not say it, or "" */
  XRPD_ERROR_FILE, /**< the file to blame, or "" where no one file is */
  XRPD_ERROR_WHY   /**< why */
} xrpd_error_part_kind;

/**
 * One part of `message`, a message the library made (through `char**
 * error` or an answer's `error`) and not yet freed: a string that lives as
 * long as the message. NULL for a NULL message.
 */
XRPROCDETECTOR_API const char* xrpd_error_part(const char* message, xrpd_error_part_kind part);

/**
 * What a host should size a pool of busy threads by, on this machine: the
 * usable processors capped by the CPU quota, at least 1. Never fails: where
 * the control groups cannot be read, the calling thread's affinity, and
 * failing that the online count, or 1.
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
/**
 * The set of a list in the kernel's format ("0-3,8"; "" the empty set; one
 * line end may follow) into *out: 0, or -1 when `list` is not such a list or
 * names a processor at or above 8192.
 */
XRPROCDETECTOR_API int xrpd_cpuset_from_list(const char* list, xrpd_cpuset* out);

/** What detection reads: this machine, a saved /proc/cpuinfo, a snapshot. */
typedef struct xrpd_source xrpd_source;

/** The kinds of source. */
typedef enum xrpd_source_kind {
  XRPD_SOURCE_LIVE,     /**< this machine */
  XRPD_SOURCE_CPUINFO,  /**< a /proc/cpuinfo text, or the file that holds one */
  XRPD_SOURCE_SNAPSHOT, /**< a snapshot or a system root */
} xrpd_source_kind;

/**
 * A source of `kind`. XRPD_SOURCE_CPUINFO: the file at `path` ("-" standard
 * input), read now, or with `path` NULL the `length` bytes of `text`,
 * copied; a file that cannot be read still makes a source, whose detections
 * report why (*error says it too). XRPD_SOURCE_SNAPSHOT: the snapshot or
 * system root in the directory `path`, read now; NULL and *error when it
 * cannot be read or is malformed.
 */
XRPROCDETECTOR_API xrpd_source* xrpd_source_open(xrpd_source_kind kind, const char* path,
                                                 const char* text, size_t length, char** error);
/** Parts of a topology that a source may leave unread, to be read faster (since 2.2.0). */
#define XRPD_SKIP_CACHES 1u /**< the caches: none are listed, and `missing` says so */
/** How a source is made (since 2.2.0). */
typedef struct xrpd_source_options {
  size_t size;   /**< set by the caller: sizeof(xrpd_source_options) */
  uint32_t skip; /**< the XRPD_SKIP_* bits of what its topology leaves unread */
} xrpd_source_options;
/**
 * xrpd_source_open with `options` (NULL: none), since 2.2.0. A fleet's
 * audit that needs the counts alone skips the caches, which are most of a
 * machine's files.
 */
XRPROCDETECTOR_API xrpd_source* xrpd_source_open_with(xrpd_source_kind kind, const char* path,
                                                      const char* text, size_t length,
                                                      const xrpd_source_options* options,
                                                      char** error);
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

/** What one generation found (see Detection in generations.h). */
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
  /* Since 2.0.0: */
  int32_t version_index;  /**< the index the detector was built with */
  const char* class_name; /**< the detector class, such as "XrProcDetectorLinux32" */
  char* debug;            /**< the debug lines, at a debug level of 1 or more; xrpd_free */
  char* summary;          /**< what printSummary wrote, when asked for; xrpd_free */
} xrpd_detection;

/** How a detection runs (see DetectOptions in generations.h). */
typedef struct xrpd_detect_options {
  size_t size; /**< set by the caller: sizeof(xrpd_detect_options) */
  int32_t debug_level;
  int32_t version_index; /**< with has_version_index */
  int has_version_index; /**< 0: the constructor without an index */
  int echo;              /**< the detector's lines to standard output too */
  int summary;           /**< call printSummary after detection, kept in `summary` */
} xrpd_detect_options;

/**
 * Runs `generation` on `source` (NULL: this machine), as detect() does: 0,
 * with *out filled, when it ran, counted or not; -1 when `out` or its size
 * is wrong, or memory ran out.
 */
XRPROCDETECTOR_API int xrpd_detect(xrpd_generation generation, const xrpd_source* source,
                                   xrpd_detection* out);
/** xrpd_detect with `options` (NULL: the defaults). */
XRPROCDETECTOR_API int xrpd_detect_with(xrpd_generation generation, const xrpd_source* source,
                                        const xrpd_detect_options* options, xrpd_detection* out);

/** The machine as processor sets (see Topology in topology.h). */
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
  const char* error;               /**< the first broken file, named, or NULL; the topology's */
  /* Since 2.0.0: */
  xrpd_cpuset present; /**< present (or possible) processors; empty where not listed */
  const char* missing; /**< what the kernel's files lack, or NULL; the topology's own */
  /* Since 2.2.0: each NULL where not known; the topology's own */
  const char* hostname;       /**< proc/sys/kernel/hostname */
  const char* kernel_release; /**< proc/sys/kernel/osrelease */
  const char* cpu_model;      /**< /proc/cpuinfo's first "model name" */
  const char* cpu_vendor;     /**< /proc/cpuinfo's first "vendor_id" */
  uint32_t unknown_sets; /**< XRPD_SET_* bits of the sets above the files do not tell (empty) */
  int32_t numa_nodes;    /**< entries for xrpd_topology_numa_node */
  int32_t caches;        /**< entries for xrpd_topology_cache */
} xrpd_topology_info;

/** Bits of xrpd_topology_info's unknown_sets (since 2.2.0). */
typedef enum xrpd_set_bit {
  XRPD_SET_ONLINE = 1,
  XRPD_SET_OFFLINE = 2,
  XRPD_SET_USABLE = 4,
  XRPD_SET_PRESENT = 8
} xrpd_set_bit;

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
  /* Since 2.0.0: */
  int32_t numa_node;        /**< index of its NUMA node */
  int32_t last_level_cache; /**< index of its last-level cache */
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

/** One NUMA node (since 2.1.0; see NumaNode in topology.h). */
typedef struct xrpd_numa_node {
  size_t size;              /**< set by the caller: sizeof(xrpd_numa_node) */
  int32_t node;             /**< the kernel's number */
  xrpd_cpuset processors;   /**< online processors; empty for a node of memory alone */
  int64_t memory_bytes;     /**< -1 where not known */
  size_t distance_count;    /**< entries of `distances`: 0, or one a node */
  const int32_t* distances; /**< its row of the distance table; the topology's own */
} xrpd_numa_node;

/** The `index`th NUMA node into *out: 0 while `index` is in range, else -1. */
XRPROCDETECTOR_API int xrpd_topology_numa_node(const xrpd_topology* topology, size_t index,
                                               xrpd_numa_node* out);

/** A cache's type. */
typedef enum xrpd_cache_type {
  XRPD_CACHE_DATA,
  XRPD_CACHE_INSTRUCTION,
  XRPD_CACHE_UNIFIED
} xrpd_cache_type;

/** One cache instance (since 2.1.0; see Cache in topology.h). */
typedef struct xrpd_cache {
  size_t size; /**< set by the caller: sizeof(xrpd_cache) */
  int32_t level;
  int32_t type; /**< an xrpd_cache_type */
  uint64_t size_bytes;
  int32_t line_bytes;     /**< 0 unknown */
  int32_t ways;           /**< 0 unknown, -1 fully associative */
  xrpd_cpuset processors; /**< the online processors that share it */
} xrpd_cache;

/** The `index`th cache into *out: 0 while `index` is in range, else -1. */
XRPROCDETECTOR_API int xrpd_topology_cache(const xrpd_topology* topology, size_t index,
                                           xrpd_cache* out);

/** The places of OpenMP 5.1 (see PlaceKind in topology.h). */
typedef enum xrpd_place_kind {
  XRPD_PLACE_THREADS,
  XRPD_PLACE_CORES,
  XRPD_PLACE_LL_CACHES,
  XRPD_PLACE_NUMA_DOMAINS,
  XRPD_PLACE_SOCKETS
} xrpd_place_kind;

/**
 * The places of `kind` (usable processors only, empty places dropped, by
 * lowest processor): their count, with the `index`th into *out where
 * `index` is below it (`out` may be NULL); -1 for a kind there is not.
 */
XRPROCDETECTOR_API int xrpd_places(const xrpd_topology* topology, xrpd_place_kind kind,
                                   size_t index, xrpd_cpuset* out);

/**
 * Pins the calling thread to the processors of `set`: 0, or -1 with errno
 * EINVAL for an empty set or one with no processor this thread may use,
 * or as sched_setaffinity sets it.
 */
XRPROCDETECTOR_API int xrpd_bind_thread(const xrpd_cpuset* set);

/** The processor budget, kept current (see ProcessorBudget in budget.h). */
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
/**
 * The budget of `source` (NULL: this process on this machine; a snapshot
 * or system root: the process it recorded), as xrpd_budget_open.
 */
XRPROCDETECTOR_API xrpd_budget* xrpd_budget_open_source(const xrpd_source* source, char** error);
/**
 * Reads the budget again: 0, or -1 when `out` or its size is wrong. Safe
 * from several threads at once; closing the budget while another thread
 * reads it is the caller's to prevent.
 */
XRPROCDETECTOR_API int xrpd_budget_read(xrpd_budget* budget, xrpd_budget_reading* out);
XRPROCDETECTOR_API void xrpd_budget_close(xrpd_budget* budget);

/** Saves this machine as a snapshot in `dir` (see saveSnapshot in snapshot.h): 0, or -1. */
XRPROCDETECTOR_API int xrpd_save_snapshot(const char* dir, char** error);

/** When and by what a snapshot was saved, as its xrprocdetect.json says (since 2.2.0). */
typedef struct xrpd_source_info {
  size_t size;          /**< set by the caller: sizeof(xrpd_source_info) */
  const char* saved_at; /**< such as "2026-11-25T21:40:59Z"; NULL where not said; the source's */
  const char* saved_by; /**< such as "xrprocdetect 2.2.0"; NULL where not said; the source's */
} xrpd_source_info;

/** The source's xrpd_source_info into *out (NULLs but for a snapshot): 0, or -1. */
XRPROCDETECTOR_API int xrpd_source_get(const xrpd_source* source, xrpd_source_info* out);

#ifdef __cplusplus
}
#endif

/** @} */

#endif /* XRPROCDETECTOR_C_API_H */
