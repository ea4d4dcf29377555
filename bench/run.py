"""Runs the benchmarks of a build and gathers all figures in FOLDER/results.json.

run.py BUILD FOLDER
"""
import json
import os
import re
import subprocess
import sys
import tempfile
import time

REPETITIONS = 12


def google_benchmark(program, *options, env=None):
    """The benchmarks' best run each, by name: noise only ever adds."""
    with tempfile.NamedTemporaryFile(suffix=".json") as out:
        subprocess.run([program, f"--benchmark_out={out.name}", "--benchmark_out_format=json",
                        "--benchmark_enable_random_interleaving=true", *options],
                       check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=env)
        runs = json.load(out)["benchmarks"]
    best = {}
    for run in runs:
        if run.get("error_occurred"):
            sys.exit(f"{run['name']}: {run['error_message']}")
        if run["run_type"] != "iteration":
            continue
        name = re.sub(r"/(real_time|iterations:\d+|repeats:\d+)", "", run["run_name"])
        # Threads are about the clock, the rest about the processor's time.
        by_clock = "real_time" in run["run_name"]
        figure = {"ns": run["real_time" if by_clock else "cpu_time"] * NANOSECONDS[run["time_unit"]]}
        figure.update({key: run[key] for key in COUNTERS if key in run})
        if name not in best or figure["ns"] < best[name]["ns"]:
            best[name] = figure
    return best


NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
COUNTERS = ("items_per_second", "moved_per_entry", "library_ms", "floor_ms", "library_us", "share")


def request_cost(program):
    """Instructions and allocations of each request, by "name/side"."""
    costs = {}
    with tempfile.TemporaryDirectory() as folder:
        dump = os.path.join(folder, "dump")
        done = subprocess.run(["valgrind", "--tool=callgrind", f"--callgrind-out-file={dump}",
                               program], check=True, text=True, capture_output=True)
        for line in done.stdout.splitlines():
            name, side, calls, size = line.split("\t")
            costs[f"{name}/{side}"] = {"allocations": int(calls), "bytes": int(size)}
        for file in os.listdir(folder):
            with open(os.path.join(folder, file), errors="replace") as lines:
                text = lines.read()
            trigger = re.search(r"^desc: Trigger: Client Request: (.*)$", text, re.M)
            if trigger:
                total = int(re.search(r"^totals: (\d+)", text, re.M)[1])
                costs[trigger[1]]["instructions"] = total // 20  # runs of each, in request_cost.cpp
    return costs


def peak_memory(program):
    return {mib: int(subprocess.run([program, str(mib)], check=True, capture_output=True).stdout)
            for mib in (1, 16, 64, 256)}


def start_up(*programs):
    """The best start of each program in nanoseconds, in turn."""
    best = [float("inf")] * len(programs)
    for _ in range(40):
        for index, program in enumerate(programs):
            start = time.perf_counter_ns()
            os.waitpid(os.posix_spawn(program, [program], os.environ), 0)
            best[index] = min(best[index], time.perf_counter_ns() - start)
    return best


def footprint(library):
    """Bytes of the sections that matter, and the number of relocations."""
    sections = subprocess.run(["size", "-A", library], check=True, text=True,
                              capture_output=True).stdout
    sizes = {name: int(size) for name, size in re.findall(r"^(\.\S+)\s+(\d+)", sections, re.M)}
    relocations = subprocess.run(["readelf", "-rW", library], check=True, text=True,
                                 capture_output=True).stdout
    return {
        "text": sizes.get(".text", 0),
        "read-only data": sizes.get(".rodata", 0),
        "data": sizes.get(".data", 0) + sizes.get(".data.rel.ro", 0) + sizes.get(".bss", 0),
        "relocations": len(re.findall(r"R_\w+_(?:RELATIVE|GLOB_DAT|JUMP_SLOT|DTPMOD64|64)\b",
                                      relocations)),
    }


def machine():
    with open("/proc/cpuinfo") as lines:
        model = re.search(r"^model name\s*: (.*)$", lines.read(), re.M)
    return {"processor": model[1] if model else "unknown", "cores": os.cpu_count()}


def main(build, folder):
    programs = os.path.join(build, "bin")
    bench = os.path.join(programs, "km_bench")
    repeat = f"--benchmark_repetitions={REPETITIONS}"
    results = {"machine": machine()}
    results["times"] = google_benchmark(bench, repeat, "--benchmark_min_time=0.01",
                                        "--benchmark_filter=-^rsa")
    results["rsa"] = google_benchmark(bench, "--benchmark_filter=^rsa")
    with tempfile.TemporaryDirectory() as state:
        env = dict(os.environ, KEYMASTER_TA_STATE=os.path.join(state, "state"),
                   QAVIX_EVENTS=os.path.join(state, "events"))
        results["world"] = google_benchmark(os.path.join(programs, "km_secure_world"), repeat,
                                            "--benchmark_min_time=0.1", env=env)
    results["requests"] = request_cost(os.path.join(programs, "km_request_cost"))
    results["peak"] = peak_memory(os.path.join(programs, "km_peak_memory"))
    results["start"] = start_up(os.path.join(programs, "km_start_with"),
                                os.path.join(programs, "km_start_without"))
    results["footprint"] = footprint(os.path.join(build, "lib", "libkeymaster41_ts.so"))
    with open(os.path.join(folder, "results.json"), "w") as out:
        json.dump(results, out, indent=1, sort_keys=True)


main(*sys.argv[1:])
