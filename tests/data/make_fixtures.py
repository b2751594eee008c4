#!/usr/bin/env python3
"""Writes the /proc/cpuinfo fixtures of the test suite.

Each fixture is modelled on the layout real kernels print (tab before the
colon, one blank line between blocks, a long flags line) but describes an
invented machine. Run from this directory; the files are committed, so this
is only needed to change them.
"""

FLAGS = ("fpu vme de pse tsc msr pae mce cx8 apic sep mtrr pge mca cmov pat pse36 "
         "clflush dts acpi mmx fxsr sse sse2 ss ht tm pbe syscall nx pdpe1gb rdtscp lm "
         "constant_tsc arch_perfmon pebs bts rep_good nopl xtopology nonstop_tsc cpuid "
         "aperfmperf pni pclmulqdq dtes64 monitor ds_cpl vmx smx est tm2 ssse3 sdbg fma "
         "cx16 xtpr pdcm pcid dca sse4_1 sse4_2 x2apic movbe popcnt tsc_deadline_timer "
         "aes xsave avx f16c rdrand lahf_lm abm 3dnowprefetch cpuid_fault epb cat_l3 "
         "cdp_l3 invpcid_single pti intel_ppin ssbd mba ibrs ibpb stibp tpr_shadow vnmi "
         "flexpriority ept vpid ept_ad fsgsbase tsc_adjust bmi1 hle avx2 smep bmi2 erms "
         "invpcid rtm cqm mpx rdt_a avx512f avx512dq rdseed adx smap clflushopt clwb "
         "intel_pt avx512cd avx512bw avx512vl xsaveopt xsavec xgetbv1 xsaves cqm_llc "
         "cqm_occup_llc cqm_mbm_total cqm_mbm_local dtherm ida arat pln pts pku ospke")

AMD_FLAGS = ("fpu vme de pse tsc msr pae mce cx8 apic sep mtrr pge mca cmov pat pse36 "
             "clflush mmx fxsr sse sse2 ht syscall nx mmxext fxsr_opt pdpe1gb rdtscp lm "
             "constant_tsc rep_good nopl nonstop_tsc cpuid extd_apicid aperfmperf pni "
             "pclmulqdq monitor ssse3 fma cx16 sse4_1 sse4_2 movbe popcnt aes xsave avx "
             "f16c rdrand lahf_lm cmp_legacy svm extapic cr8_legacy abm sse4a misalignsse "
             "3dnowprefetch osvw skinit wdt tce topoext perfctr_core perfctr_nb bpext "
             "perfctr_llc mwaitx cpb hw_pstate ssbd ibpb vmmcall fsgsbase bmi1 avx2 smep "
             "bmi2 rdseed adx smap clflushopt sha_ni xsaveopt xsavec xgetbv1 xsaves "
             "clzero irperf xsaveerptr arat npt lbrv svm_lock nrip_save tsc_scale "
             "vmcb_clean flushbyasid decodeassists pausefilter pfthreshold avic "
             "v_vmsave_vmload vgif overflow_recov succor smca")


def intel_block(n, phys, core, cores, siblings, apic, mhz="2100.000"):
    lines = [
        ("processor", n), ("vendor_id", "GenuineIntel"), ("cpu family", 6),
        ("model", 85), ("model name", "Example Server CPU 4100 @ 2.10GHz"),
        ("stepping", 4), ("microcode", "0x2006b06"), ("cpu MHz", mhz),
        ("cache size", "22528 KB"),
    ]
    if phys is not None:
        lines.append(("physical id", phys))
    lines.append(("siblings", siblings))
    if core is not None:
        lines.append(("core id", core))
    if cores is not None:
        lines.append(("cpu cores", cores))
    lines += [
        ("apicid", apic), ("initial apicid", apic), ("fpu", "yes"),
        ("fpu_exception", "yes"), ("cpuid level", 22), ("wp", "yes"),
        ("flags", FLAGS),
        ("bugs", "cpu_meltdown spectre_v1 spectre_v2 spec_store_bypass l1tf mds swapgs"),
        ("bogomips", "4200.00"), ("clflush size", 64), ("cache_alignment", 64),
        ("address sizes", "46 bits physical, 48 bits virtual"), ("power management", ""),
    ]
    return "".join(f"{k}\t: {v}\n" if len(k) >= 8 else f"{k}\t\t: {v}\n"
                   for k, v in lines).replace("power management\t: \n", "power management:\n")


def amd_block(n, phys, core, cores, siblings, apic):
    lines = [
        ("processor", n), ("vendor_id", "AuthenticAMD"), ("cpu family", 23),
        ("model", 1), ("model name", "Example 8-Core Server CPU"), ("stepping", 2),
        ("microcode", "0x8001230"), ("cpu MHz", "2400.000"), ("cache size", "512 KB"),
        ("physical id", phys), ("siblings", siblings), ("core id", core),
        ("cpu cores", cores), ("apicid", apic), ("initial apicid", apic),
        ("fpu", "yes"), ("fpu_exception", "yes"), ("cpuid level", 13), ("wp", "yes"),
        ("flags", AMD_FLAGS), ("bugs", "sysret_ss_attrs null_seg spectre_v1 spectre_v2"),
        ("bogomips", "4790.88"), ("TLB size", "2560 4K pages"), ("clflush size", 64),
        ("cache_alignment", 64), ("address sizes", "43 bits physical, 48 bits virtual"),
        ("power management", "ts ttp tm hwpstate cpb eff_freq_ro [13] [14]"),
    ]
    return "".join(f"{k}\t: {v}\n" if len(k) >= 8 else f"{k}\t\t: {v}\n" for k, v in lines)


def write(name, blocks, tail="\n"):
    with open(name, "w") as f:
        f.write("\n".join(blocks) + tail)


# One package, 4 cores, 2 threads each: Linux numbers the first thread of
# every core first (0-3), then the siblings (4-7).
write("one-socket-ht-8.cpuinfo",
      [intel_block(n, 0, n % 4, 4, 8, (n % 4) * 2 + n // 4) for n in range(8)])

# Two packages of 4 cores, no hyper-threading, packages interleaved.
write("two-socket-8.cpuinfo",
      [intel_block(n, n % 2, n // 2, 4, 4, (n % 2) * 16 + (n // 2) * 2) for n in range(8)])

# Two packages of 8 cores with 2 threads each (32 logical), AMD layout.
write("two-socket-amd-smt-32.cpuinfo",
      [amd_block(n, (n // 8) % 2, n % 8, 8, 16, n) for n in range(32)])

# A virtual machine that shows no topology at all.
write("vm-no-physical-id-4.cpuinfo",
      [intel_block(n, None, None, None, 4, n) for n in range(4)])

# An older kernel: physical id lines but no core id or cpu cores lines
# (one hyper-threaded package of one core).
write("old-no-cpu-cores-2.cpuinfo",
      [intel_block(n, 0, None, None, 2, n) for n in range(2)])

# A package whose first processor says 6 cores and whose others say 8.
write("first-processor-cores-6.cpuinfo",
      [intel_block(n, 0, n, 6 if n == 0 else 8, 8, n) for n in range(8)])

# Processor numbers 0, 1, 2, 3, then 1 and 2 again: the repeated blocks move
# processor 1 to package 1 and give processor 2 a second core id.
blocks = [intel_block(n, 0, n, 4, 4, n) for n in range(4)]
blocks.append(intel_block(1, 1, 0, 2, 2, 16))
blocks.append(intel_block(2, 0, 7, 4, 4, 2))
write("repeated-processor.cpuinfo", blocks)

# A physical id and cpu cores line before the first processor line.
write("physical-id-first.cpuinfo",
      ["physical id\t: 3\ncpu cores\t: 2\n"] +
      [intel_block(n, 5, n, 4, 4, n) for n in range(2)])

# Two complete blocks, then a file that ends right after "processor".
write("ends-after-processor.cpuinfo",
      [intel_block(n, 0, n, 2, 2, n) for n in range(2)], tail="\nprocessor")

# Nothing at all.
write("empty.cpuinfo", [], tail="")
