#!/usr/bin/env python3
"""The benchmark table: reads Google Benchmark's JSON results and prints the
medians, each with the reference it is judged against, their ratio and the
target; optionally writes the same rows as JSON.

    table.py RESULTS.json JSON-OUT|"" CHECK(0|1)

Exits 1 when a benchmark reported an error, or with CHECK when a target is
missed. scripts/bench runs it; bench/*.cpp says what each benchmark measures.
"""
import json
import sys

results_path, json_out, check = sys.argv[1], sys.argv[2], sys.argv[3] == "1"
KIB, MIB = 1 << 10, 1 << 20
SIZES = [4 * KIB, 64 * KIB, MIB, 16 * MIB]


def size_label(size):
    return f"{size // MIB} MiB" if size >= MIB else f"{size // KIB} KiB"


# (what, benchmark, against, reference benchmarks (their times add up), target)
# A target is ("<=", limit) on time / reference time. Rows of two threads show
# the time per call of both together (the benchmark counts the calls of all
# threads), and their ratio is the throughput of two threads over one:
# reference time / time.
ROWS = []
for size in SIZES:
    verify = f"verify/library/{size}"
    ROWS.append((f"verify {size_label(size)}", verify, "plain OpenSSL, same file", [f"verify/openssl/{size}"],
                 ("<=", 1.10) if size >= 64 * KIB else None))
    ROWS.append((f"verify {size_label(size)}", verify, "RSA verify + SHA-256 in memory",
                 [f"verify/sha256_only/{size}", "verify/rsa_verify_only"], None))
for size in (4 * KIB, MIB):
    ROWS.append((f"open file {size_label(size)}", f"descriptor/open_file/{size}", "verifyFileDescriptor, same file",
                 [f"descriptor/by_name/{size}"], ("<=", 1.05)))
ROWS += [
    ("entry: outside the areas", "entry/outside", "access + realpath", ["entry/access_realpath"], ("<=", 1.3)),
    ("entry: not a television", "entry/other_device", "", [], None),
    ("entry: signed 4 KiB, television", "entry/signed", "", [], None),
    ("entry: refused, report delivered", "entry/refused", "verify + SendSecurityReport",
     ["entry/verify_and_report"], ("<=", 1.2)),
    ("SendSecurityReport round trip", "report/round_trip", "", [], None),
    ("entry: signed, 2 threads", "threads/signed/threads:2", "1 thread (throughput)",
     ["threads/signed/threads:1"], (">=", 1.8)),
    ("key load alone, 2 threads", "threads/key_load/threads:2", "1 thread (throughput)",
     ["threads/key_load/threads:1"], None),
]
# CPU time for work that never waits (files in the page cache), so that other
# processes' turns on the processor do not count; elapsed time for anything
# that waits for a listener or runs on several threads.
CPU_TIMED = ("verify/", "descriptor/")
TO_US = {"ns": 1e-3, "us": 1.0, "ms": 1e3, "s": 1e6}

with open(results_path) as f:
    data = json.load(f)

medians, errors, repetitions = {}, [], None
for b in data.get("benchmarks", []):
    name = "/".join(p for p in b.get("run_name", b["name"]).split("/") if p != "real_time")
    if b.get("error_occurred"):
        errors.append(f"{name}: {b.get('error_message', 'error')}")
        continue
    repetitions = b.get("repetitions", repetitions)
    if b.get("aggregate_name") == "median" or (b.get("aggregate_name") is None and b.get("run_type") == "iteration"):
        field = "cpu_time" if name.startswith(CPU_TIMED) else "real_time"
        medians[name] = b[field] * TO_US[b.get("time_unit", "ns")]
for e in errors:
    print(f"bench: {e}", file=sys.stderr)

rows, missed, cells = [], [], []
for what, bench, against, refs, target in ROWS:
    value = medians.get(bench)
    if value is None:
        continue
    ref = sum(medians[r] for r in refs) if refs and all(r in medians for r in refs) else None
    ratio = None
    if ref:
        ratio = ref / value if bench.startswith("threads/") else value / ref
    meets = None
    if target and ratio is not None:
        op, limit = target
        meets = ratio <= limit if op == "<=" else ratio >= limit
        if not meets:
            missed.append(f"{what}: {ratio:.2f} (target {op} {limit:g})")
    rows.append({"what": what, "us": value, "against": against or None, "against_us": ref, "ratio": ratio,
                 "target": f"{target[0]} {target[1]:g}" if target else None, "meets_target": meets})
    cells.append([what, f"{value:.1f}", against, "" if ref is None else f"{ref:.1f}",
                  "" if ratio is None else f"{ratio:.2f}",
                  "" if not target else f"{target[0]} {target[1]:g} " + ("ok" if meets else "MISS")])

headers = ["what", "µs", "against", "µs", "ratio", "target"]
widths = [max(len(h), *(len(c[i]) for c in cells)) if cells else len(h) for i, h in enumerate(headers)]
line = lambda cs: "  ".join(c.ljust(w) if i in (0, 2) else c.rjust(w) for i, (c, w) in enumerate(zip(cs, widths)))
print()
print(f"median of {repetitions}; verify and descriptor rows in CPU time, the others in elapsed time")
print(line(headers))
print("  ".join("-" * w for w in widths))
for c in cells:
    print(line(c))

context = data.get("context", {})
if json_out:
    with open(json_out, "w") as f:
        json.dump({"statistic": "median", "unit": "us", "repetitions": repetitions,
                   "context": {k: context.get(k) for k in ("date", "host_name", "num_cpus", "load_avg")},
                   "rows": rows}, f, indent=2)
        f.write("\n")
if missed:
    print()
    print("targets missed: " + "; ".join(missed))
sys.exit(1 if errors or (check and missed) else 0)
