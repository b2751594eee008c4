"""The Python module on the C interface: live, on the project's snapshot
trees against the C++ API's answers there (xrprocdetect's JSON), and on
input it cannot read, which raises and leaks nothing."""
import json
import os
import subprocess

import pytest

import xrprocdetector as xr

SYSROOTS = os.environ["XRPROCDETECTOR_SYSROOTS"]
TOOL = os.environ["XRPROCDETECT"]
TREES = sorted(os.listdir(SYSROOTS))


def cpus(text):
    """The set of a kernel list such as 0-3,8; None for null, a set not known."""
    if text is None:
        return None
    ranges = [part.split("-") for part in text.split(",") if part]
    return {cpu for r in ranges for cpu in range(int(r[0]), int(r[-1]) + 1)}


def test_live_answers_agree():
    t = xr.topology()
    reading = xr.Budget().read()
    assert t.online and t.usable <= t.online
    assert xr.effective_processors() == reading.effective_processors == t.effective_processors
    assert reading.usable == t.usable and reading.error is None
    assert xr.detect("7.0").counted and xr.__version__.count(".") == 2


@pytest.mark.parametrize("tree", TREES)
def test_trees_as_the_cpp_api_reads_them(tree):
    path = os.path.join(SYSROOTS, tree)
    rows = [json.loads(line) for line in subprocess.run(
        [TOOL, "--all", "--json-lines", "--snapshot", path], capture_output=True, text=True,
        check=False).stdout.splitlines()]
    k = rows[0]["kernel"]
    t = xr.topology(snapshot=path)  # a set the files do not tell: None, as JSON's null
    assert (t.online, t.offline, t.usable) == \
        (cpus(k["onlineCpus"]), cpus(k["offlineCpus"]), cpus(k["usableCpus"]))
    assert (len(t.packages) or None, len(t.cores) or None) == (k["packages"], k["cores"])
    assert (t.cpu_quota, t.effective_processors) == (k["cpuQuota"], k["effectiveProcessors"])
    assert (t.hypervisor_vendor, t.virtualization_type, t.container) == \
        (k["hypervisorVendor"], k["virtualizationType"], k["container"])
    if t.online and t.error is None:  # a budget on the tree answers as its topology
        r = xr.Budget(snapshot=path).read()
        assert (r.usable, r.cpu_quota, r.effective_processors, r.error) == \
            (t.usable, t.cpu_quota, t.effective_processors, None)
    places = ["cpu", "package", "core", "thread", "online", "usable", "numaNode", "lastLevelCache"]
    assert [(p.cpu, p.package, p.core, p.thread, p.online, p.usable, p.numa_node,
             p.last_level_cache) for p in t.processors] == \
        [tuple(-1 if c[f] is None else c[f] for f in places) for c in k["cpus"]]  # null: -1
    assert [(n.node, n.cpus, n.memory_bytes, n.distances) for n in t.numa_nodes] == \
        [(n["node"], cpus(n["cpus"]), n["memoryBytes"], n["distances"]) for n in k["numaNodes"]]
    assert [(c.level, c.type, c.size_bytes, c.line_bytes, c.ways, c.cpus) for c in t.caches] == \
        [(c["level"], c["type"], c["sizeBytes"], c["lineBytes"], c["ways"], cpus(c["cpus"]))
         for c in k["caches"]]
    for row in rows:
        d = xr.detect(row["generation"], snapshot=path)
        assert (d.counted, d.note) == (row["counted"], row["note"])
        if d.counted:
            assert (d.packages, d.cores, d.logical_processors) == \
                (row["packages"], row["cores"], row["logicalProcessors"])


def test_bad_input_raises_and_leaks_nothing(tmp_path, monkeypatch):
    """Each raises; nothing leaks, and a budget that failed to open is collected quietly."""
    import gc
    import sys
    unraisable = []
    monkeypatch.setattr(sys, "unraisablehook", unraisable.append)
    (tmp_path / "xrprocdetect.json").write_text("{\"format\": \"other\"}")
    calls = [lambda: xr.topology(snapshot="/no/such/snapshot"),
             lambda: xr.detect("default", snapshot=str(tmp_path)),
             lambda: xr.Budget(snapshot="/no/such/snapshot"),
             lambda: xr.detect("9.9"),
             lambda: xr.save_snapshot(str(tmp_path))]
    for call in calls:  # the first in the library's words, as bad_snapshots.sh has them
        with pytest.raises(xr.XrProcDetectorError, match="/no/such/snapshot" if call is calls[0] else ""):
            call()
    descriptors = len(os.listdir("/proc/self/fd"))
    with open("/proc/self/statm") as statm:
        resident = int(statm.read().split()[1])
    for _ in range(2000):
        for call in calls[:3]:
            with pytest.raises(xr.XrProcDetectorError):
                call()
    with open("/proc/self/statm") as statm:
        grown = (int(statm.read().split()[1]) - resident) * os.sysconf("SC_PAGE_SIZE")
    gc.collect()
    assert len(os.listdir("/proc/self/fd")) == descriptors and unraisable == []
    assert grown < 4 << 20  # 6000 failed calls: no leak of a few hundred bytes each


def test_a_budget_read_and_closed_from_threads_at_once():
    """Readers racing a close: each read answers or raises, the interpreter lives."""
    import threading
    for _ in range(20):
        budget = xr.Budget()
        outcomes = []

        def reader():
            for _ in range(50):
                try:
                    outcomes.append(budget.read().effective_processors >= 1)
                except xr.XrProcDetectorError as e:
                    outcomes.append(str(e) == "the budget is closed")
        threads = [threading.Thread(target=reader) for _ in range(4)]
        for thread in threads:
            thread.start()
        budget.close()
        for thread in threads:
            thread.join()
        assert all(outcomes) and len(outcomes) == 200


@pytest.mark.parametrize("bad", ["dir\0/../elsewhere", 42, None.__class__])
def test_paths_the_library_cannot_take_raise_its_error(tmp_path, bad):
    with pytest.raises(xr.XrProcDetectorError):
        xr.save_snapshot(bad if bad != "dir\0/../elsewhere" else str(tmp_path) + "/" + bad)
    with pytest.raises(xr.XrProcDetectorError):
        xr.topology(snapshot=bad)
    assert os.listdir(tmp_path) == []


def test_places_of_a_two_node_machine():
    """Its nodes and caches are the tool's (test_trees_as_the_cpp_api_reads_them)."""
    t = xr.topology(snapshot=os.path.join(SYSROOTS, "numa-two-node-smt-16"))
    halves = [set(range(0, 4)) | set(range(8, 12)), set(range(4, 8)) | set(range(12, 16))]
    assert xr.places(t, "ll_caches") == xr.places(t, "numa_domains") == xr.places(t, "sockets") \
        == halves
    assert xr.places(t, "cores")[:2] == [{0, 8}, {1, 9}] and len(xr.places(t, "threads")) == 16
    with pytest.raises(xr.XrProcDetectorError):
        xr.places(t, "numa")


def test_bind_thread_pins_or_says_why():
    """On a thread of its own, whose failures come back with its result."""
    import concurrent.futures

    def pin():
        last = max(os.sched_getaffinity(0))
        xr.bind_thread({last})
        assert os.sched_getaffinity(0) == {last}
        for bad in (set(), {8191}, {-1}):
            with pytest.raises(xr.XrProcDetectorError):
                xr.bind_thread(bad)
        assert os.sched_getaffinity(0) == {last}
    with concurrent.futures.ThreadPoolExecutor(1) as thread:
        thread.submit(pin).result()


def test_effective_processors_without_sys_counts_the_affinity():
    """In a sandbox without /sys the budget cannot open; the affinity still counts."""
    import shutil
    import sys
    if os.geteuid() != 0 or not shutil.which("unshare") or len(os.sched_getaffinity(0)) < 2:
        pytest.skip("needs root, unshare and two processors")
    code = "import os, xrprocdetector as x; os.sched_setaffinity(0, {0}); print(x.effective_processors())"
    run = subprocess.run(["unshare", "-m", "sh", "-c",
                          'mount -t tmpfs none /sys && exec "$0" -c "$1"', sys.executable, code],
                         capture_output=True, text=True, check=False)
    assert (run.returncode, run.stdout) == (0, "1\n"), run.stderr
