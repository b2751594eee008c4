# SPDX-License-Identifier: Apache-2.0
"""How many processors this machine has, and how many this process may use.

A module on xrprocdetector's C interface (libxrprocdetector.so.2), through
ctypes and nothing else::

    >>> import xrprocdetector
    >>> xrprocdetector.effective_processors()   # threads to start: cgroups counted
    2

The library is the file the environment variable XRPROCDETECTOR_LIBRARY
names (a build tree's), else the wheel's own copy beside this file, else the
system's, by its SONAME. Every failure raises XrProcDetectorError with the
library's message.
"""
import ctypes
import ctypes.util
import dataclasses
import os
import threading
from typing import List, Optional, Set

__all__ = ["Budget", "BudgetReading", "Cache", "Detection", "NumaNode", "Processor", "Topology",
           "XrProcDetectorError", "bind_thread", "detect", "effective_processors", "places",
           "save_snapshot", "topology"]


class XrProcDetectorError(Exception):
    """What the library said went wrong."""


# The major version of the library's SONAME that this module speaks to.
_SONAME_MAJOR = 2
_SONAME = "libxrprocdetector.so.%d" % _SONAME_MAJOR


def _load_library() -> ctypes.CDLL:
    """The file XRPROCDETECTOR_LIBRARY names, which alone is tried when set; else
    the wheel's copy beside this file, else the system's by its SONAME."""
    named = os.environ.get("XRPROCDETECTOR_LIBRARY")
    bundled = os.path.join(os.path.dirname(os.path.abspath(__file__)), _SONAME)
    tried = []
    for candidate in [named] if named else [bundled, _SONAME]:
        try:
            return ctypes.CDLL(candidate, use_errno=True)
        except OSError as error:
            tried.append("\n  %s" % error)  # dlerror names the file
    if named:
        fix = ("set XRPROCDETECTOR_LIBRARY to the path of %s (a build tree's is "
               "BUILD/src/%s), or unset it" % (_SONAME, _SONAME))
    else:
        fix = ("install the wheel that carries the library (pip install "
               "xrprocdetector-*.whl, made by cmake --build BUILD --target python-wheel), "
               "or the Debian package libxrprocdetector%d, or set XRPROCDETECTOR_LIBRARY "
               "to the path of %s" % (_SONAME_MAJOR, _SONAME))
    raise XrProcDetectorError("cannot load the xrprocdetector library; tried:%s\nTo fix: %s"
                              % ("".join(tried), fix))


_lib = _load_library()
_char_p = ctypes.POINTER(ctypes.c_char)


class _CpuSet(ctypes.Structure):
    _fields_ = [("bits", ctypes.c_uint64 * 128)]

    def to_set(self) -> Set[int]:
        return {64 * w + b for w, word in enumerate(self.bits) if word
                for b in range(64) if word >> b & 1}


def _struct(name, fields):
    return type(name, (ctypes.Structure,), {"_fields_": [("size", ctypes.c_size_t)] + fields})


_i32 = ctypes.c_int32
_DetectionC = _struct("_DetectionC", [
    ("counted", ctypes.c_int), ("result", ctypes.c_int), ("packages", _i32), ("cores", _i32),
    ("logical_processors", _i32), ("hyper_threading", _i32), ("vm", _i32),
    ("reported_verdict", _i32), ("ended_by", _i32), ("note", _char_p), ("error", _char_p)])
_InfoC = _struct("_InfoC", [
    ("online", _CpuSet), ("offline", _CpuSet), ("usable", _CpuSet), ("packages", _i32),
    ("cores", _i32), ("core_kinds", _i32), ("processors", _i32), ("cpu_quota", ctypes.c_double),
    ("effective_processors", _i32), ("smt", _i32), ("hypervisor", _i32),
    ("hypervisor_vendor", ctypes.c_char_p), ("virtualization_type", ctypes.c_char_p),
    ("container", ctypes.c_char_p), ("error", ctypes.c_char_p), ("present", _CpuSet),
    ("missing", ctypes.c_char_p), ("hostname", ctypes.c_char_p),
    ("kernel_release", ctypes.c_char_p), ("cpu_model", ctypes.c_char_p),
    ("cpu_vendor", ctypes.c_char_p), ("unknown_sets", ctypes.c_uint32)])
_ProcessorC = _struct("_ProcessorC", [
    ("cpu", ctypes.c_uint32), ("package", _i32), ("die", _i32), ("core", _i32),
    ("thread", _i32), ("kind", _i32), ("online", ctypes.c_int), ("usable", ctypes.c_int),
    ("numa_node", _i32), ("last_level_cache", _i32)])
_NodeC = _struct("_NodeC", [
    ("node", _i32), ("processors", _CpuSet), ("memory_bytes", ctypes.c_int64),
    ("distance_count", ctypes.c_size_t), ("distances", ctypes.POINTER(_i32))])
_CacheC = _struct("_CacheC", [
    ("level", _i32), ("type", _i32), ("size_bytes", ctypes.c_uint64), ("line_bytes", _i32),
    ("ways", _i32), ("processors", _CpuSet)])
_ReadingC = _struct("_ReadingC", [
    ("usable_processors", ctypes.c_int), ("cpu_quota", ctypes.c_double),
    ("effective_processors", ctypes.c_int), ("usable", _CpuSet), ("error", _char_p)])

_P = ctypes.c_void_p
_ERR = ctypes.POINTER(_char_p)
for _name, _result, _args in [
        ("xrpd_version", ctypes.c_char_p, []), ("xrpd_free", None, [_P]),
        ("xrpd_effective_processors", ctypes.c_int, []),
        ("xrpd_source_live", _P, []), ("xrpd_source_snapshot", _P, [ctypes.c_char_p, _ERR]),
        ("xrpd_source_close", None, [_P]),
        ("xrpd_detect", ctypes.c_int, [ctypes.c_int, _P, ctypes.POINTER(_DetectionC)]),
        ("xrpd_topology_read", _P, [_P, _ERR]), ("xrpd_topology_close", None, [_P]),
        ("xrpd_topology_get", ctypes.c_int, [_P, ctypes.POINTER(_InfoC)]),
        ("xrpd_topology_processor", ctypes.c_int,
         [_P, ctypes.c_size_t, ctypes.POINTER(_ProcessorC)]),
        ("xrpd_topology_set", ctypes.c_int,
         [_P, ctypes.c_int, ctypes.c_size_t, ctypes.POINTER(_CpuSet),
          ctypes.POINTER(ctypes.c_char_p)]),
        ("xrpd_budget_open", _P, [_ERR]), ("xrpd_budget_close", None, [_P]),
        ("xrpd_budget_open_source", _P, [_P, _ERR]),
        ("xrpd_topology_numa_node", ctypes.c_int, [_P, ctypes.c_size_t, ctypes.POINTER(_NodeC)]),
        ("xrpd_topology_cache", ctypes.c_int, [_P, ctypes.c_size_t, ctypes.POINTER(_CacheC)]),
        ("xrpd_places", ctypes.c_int, [_P, ctypes.c_int, ctypes.c_size_t, ctypes.POINTER(_CpuSet)]),
        ("xrpd_bind_thread", ctypes.c_int, [ctypes.POINTER(_CpuSet)]),
        ("xrpd_budget_read", ctypes.c_int, [_P, ctypes.POINTER(_ReadingC)]),
        ("xrpd_save_snapshot", ctypes.c_int, [ctypes.c_char_p, _ERR])]:
    getattr(_lib, _name).restype = _result
    getattr(_lib, _name).argtypes = _args

__version__: str = _lib.xrpd_version().decode()


def _take(pointer) -> Optional[str]:
    """The text of a string the library made, freed."""
    if not pointer:
        return None
    text = ctypes.cast(pointer, ctypes.c_char_p).value.decode(errors="replace")
    _lib.xrpd_free(pointer)
    return text


def _call(function, *args):
    """function(*args, &error): its handle, or for a status 0; else raises with its message."""
    error = _char_p()
    result = function(*args, ctypes.byref(error))
    message = _take(error)
    if (result is None if function.restype is _P else result != 0) or message is not None:
        raise XrProcDetectorError(message or "%s failed" % function.__name__)
    return result


def _path(path) -> bytes:
    """A path as the library takes it; a path it cannot take raises."""
    try:
        encoded = os.fsencode(path)
    except TypeError:
        raise XrProcDetectorError("a path is a str, bytes or os.PathLike, not %s"
                                  % type(path).__name__) from None
    if b"\0" in encoded:
        raise XrProcDetectorError("a path cannot hold a NUL character: %r" % (path,))
    return encoded


def _source(snapshot: Optional[str]) -> int:
    if snapshot is None:
        return _lib.xrpd_source_live()
    return _call(_lib.xrpd_source_snapshot, _path(snapshot))


def effective_processors() -> int:
    """What to size a pool of busy threads by: usable processors capped by the CPU quota."""
    return _lib.xrpd_effective_processors()


_GENERATIONS = {"5.3": 0, "6.0": 1, "6.1": 2, "7.0": 3, "default": 4}


@dataclasses.dataclass
class Detection:
    """What one generation found; the counts mean nothing unless `counted`."""
    generation: str
    counted: bool
    result: int
    packages: int
    cores: int
    logical_processors: int
    hyper_threading: int
    vm: int
    note: Optional[str]


def detect(generation: str = "default", snapshot: Optional[str] = None) -> Detection:
    """Runs one generation ("5.3", "6.0", "6.1", "7.0", "default") live or on a snapshot."""
    if generation not in _GENERATIONS:
        raise XrProcDetectorError("unknown generation %r; choose %s"
                                  % (generation, ", ".join(_GENERATIONS)))
    source = _source(snapshot)
    try:
        d = _DetectionC(size=ctypes.sizeof(_DetectionC))
        if _lib.xrpd_detect(_GENERATIONS[generation], source, ctypes.byref(d)) != 0:
            raise XrProcDetectorError("detection failed")
        note, error = _take(d.note), _take(d.error)
        if error is not None:
            raise XrProcDetectorError(error)
        return Detection(generation, bool(d.counted), d.result, d.packages, d.cores,
                         d.logical_processors, d.hyper_threading, d.vm, note)
    finally:
        _lib.xrpd_source_close(source)


@dataclasses.dataclass
class Processor:
    """Where one processor stands; indices from 0, -1 where the files do not tell."""
    cpu: int
    package: int
    die: int
    core: int
    thread: int
    kind: int
    online: bool
    usable: bool
    numa_node: int
    last_level_cache: int


@dataclasses.dataclass
class NumaNode:
    """One NUMA node: its number, online processors, memory and row of distances."""
    node: int
    cpus: Set[int]
    memory_bytes: Optional[int]
    distances: List[int]


@dataclasses.dataclass
class Cache:
    """One cache instance; type "data", "instruction" or "unified"; ways -1: fully associative."""
    level: int
    type: str
    size_bytes: int
    line_bytes: int
    ways: int
    cpus: Set[int]


_PLACES = ["threads", "cores", "ll_caches", "numa_domains", "sockets"]


def _text(value: Optional[bytes]) -> Optional[str]:
    return None if value is None else value.decode(errors="replace")


@dataclasses.dataclass
class Topology:
    """The machine as processor sets (see Topology in detect.h); None for a set the kernel's
    files do not tell."""
    online: Optional[Set[int]]
    offline: Optional[Set[int]]
    usable: Optional[Set[int]]
    packages: List[Set[int]]
    cores: List[Set[int]]
    core_kinds: List[Set[int]]
    processors: List[Processor]
    cpu_quota: Optional[float]
    effective_processors: Optional[int]
    hypervisor_vendor: Optional[str]
    virtualization_type: Optional[str]
    container: Optional[str]
    error: Optional[str]
    numa_nodes: List[NumaNode] = dataclasses.field(default_factory=list)
    caches: List[Cache] = dataclasses.field(default_factory=list)
    _places: dict = dataclasses.field(default_factory=dict, repr=False, compare=False)


def _sets(handle: int, which: int) -> List[Set[int]]:
    sets, cpus = [], _CpuSet()
    while _lib.xrpd_topology_set(handle, which, len(sets), ctypes.byref(cpus), None) == 0:
        sets.append(cpus.to_set())
    return sets


def _nodes(handle: int) -> List[NumaNode]:
    nodes, n = [], _NodeC(size=ctypes.sizeof(_NodeC))
    while _lib.xrpd_topology_numa_node(handle, len(nodes), ctypes.byref(n)) == 0:
        nodes.append(NumaNode(n.node, n.processors.to_set(),
                              None if n.memory_bytes < 0 else n.memory_bytes,
                              [n.distances[i] for i in range(n.distance_count)]))
    return nodes


def _caches(handle: int) -> List[Cache]:
    caches, c = [], _CacheC(size=ctypes.sizeof(_CacheC))
    while _lib.xrpd_topology_cache(handle, len(caches), ctypes.byref(c)) == 0:
        caches.append(Cache(c.level, ("data", "instruction", "unified")[c.type], c.size_bytes,
                            c.line_bytes, c.ways, c.processors.to_set()))
    return caches


def _places(handle: int, kind: int) -> List[Set[int]]:
    place, out = _CpuSet(), []
    for index in range(max(_lib.xrpd_places(handle, kind, 0, None), 0)):
        _lib.xrpd_places(handle, kind, index, ctypes.byref(place))
        out.append(place.to_set())
    return out


def places(topology: "Topology", kind: str) -> List[Set[int]]:
    """OpenMP's places of `kind` ("threads", "cores", "ll_caches", "numa_domains", "sockets")
    made of the usable processors, in order of their lowest processor."""
    if kind not in _PLACES:
        raise XrProcDetectorError("unknown kind of place %r; choose %s" % (kind, ", ".join(_PLACES)))
    return [set(place) for place in topology._places[kind]]


def bind_thread(cpus) -> None:
    """Pins the calling thread to the processors `cpus` (numbers below 8192)."""
    cpus = set(cpus)
    if not all(isinstance(cpu, int) and 0 <= cpu < 8192 for cpu in cpus):
        raise XrProcDetectorError("processors are numbers from 0 to 8191: %r" % sorted(cpus))
    bits = _CpuSet()
    for cpu in cpus:
        bits.bits[cpu // 64] |= 1 << (cpu % 64)
    if _lib.xrpd_bind_thread(ctypes.byref(bits)) != 0:
        why = "the set is empty" if not cpus else os.strerror(ctypes.get_errno())
        raise XrProcDetectorError("cannot bind the thread to %s: %s" % (sorted(cpus), why))


def topology(snapshot: Optional[str] = None) -> Topology:
    """This machine's topology, or the snapshot's (a directory) as its files show it."""
    source = _source(snapshot)
    try:
        handle = _call(_lib.xrpd_topology_read, source)
    finally:
        _lib.xrpd_source_close(source)
    try:
        info = _InfoC(size=ctypes.sizeof(_InfoC))
        _lib.xrpd_topology_get(handle, ctypes.byref(info))
        processors = []
        for index in range(info.processors):
            p = _ProcessorC(size=ctypes.sizeof(_ProcessorC))
            _lib.xrpd_topology_processor(handle, index, ctypes.byref(p))
            processors.append(Processor(p.cpu, p.package, p.die, p.core, p.thread, p.kind,
                                        bool(p.online), bool(p.usable), p.numa_node,
                                        p.last_level_cache))
        sets = [None if info.unknown_sets & bit else cpus.to_set()
                for bit, cpus in ((1, info.online), (2, info.offline), (4, info.usable))]
        return Topology(*sets,
                        _sets(handle, 0), _sets(handle, 1), _sets(handle, 2), processors,
                        info.cpu_quota or None,
                        None if info.effective_processors < 0 else info.effective_processors,
                        _text(info.hypervisor_vendor), _text(info.virtualization_type),
                        _text(info.container), _text(info.error), _nodes(handle),
                        _caches(handle), {kind: _places(handle, k)
                                          for k, kind in enumerate(_PLACES)})
    finally:
        _lib.xrpd_topology_close(handle)


def save_snapshot(path: str) -> None:
    """Saves this machine into `path`, a new or empty directory."""
    _call(_lib.xrpd_save_snapshot, _path(path))


@dataclasses.dataclass
class BudgetReading:
    """What this process may use now."""
    usable: Set[int]
    cpu_quota: Optional[float]
    effective_processors: int
    error: Optional[str]


class Budget:
    """The processor budget, kept current for a few system calls a read().

    Any thread may read it and close it, also while others read: a close
    waits for the reads under way, and a read after it raises.
    """

    _handle = None  # so that a Budget() that failed closes as a closed one

    def __init__(self, snapshot: Optional[str] = None) -> None:
        self._lock = threading.Lock()
        source = _source(snapshot)
        try:
            self._handle = _call(_lib.xrpd_budget_open_source, source)
        finally:
            _lib.xrpd_source_close(source)

    def read(self) -> BudgetReading:
        """Reads the budget again: what changed since shows."""
        r = _ReadingC(size=ctypes.sizeof(_ReadingC))
        with self._lock:
            if not self._handle:
                raise XrProcDetectorError("the budget is closed")
            status = _lib.xrpd_budget_read(self._handle, ctypes.byref(r))
        if status != 0:
            raise XrProcDetectorError("the budget could not be read")
        return BudgetReading(r.usable.to_set(), r.cpu_quota or None, r.effective_processors,
                             _take(r.error))

    def close(self) -> None:
        """Closes the budget's files; reading it afterwards raises."""
        if self._handle:
            with self._lock:
                handle, self._handle = self._handle, None
            _lib.xrpd_budget_close(handle)

    def __enter__(self) -> "Budget":
        return self

    def __exit__(self, *exc) -> None:
        self.close()

    def __del__(self) -> None:
        self.close()
