"""Runs the benchmarks of a build and writes FOLDER/results.json, table.md and chart.svg.

run.py BUILD FOLDER
"""
import json
import os
import re
import subprocess
import sys
import tempfile
import time
from html import escape

REPETITIONS = 12
ENCRYPTED_MB = 200
OTHERS = ("protobuf", "FlatBuffers")
# What these do is libcrypto's work for the most part, or that of the platform's parser.
BY_LIBCRYPTO = ("ImportRsa", "ImportEc", "ExportRsa", "ExportEc", "ImportWrappedKey",
                "ImportWrappedPkcs8", "UnwrappedKey")


# ---- Measuring

def google_benchmark(program, *options, env=None):
    """The benchmarks' best run each in nanoseconds, by name: noise only ever adds."""
    with tempfile.NamedTemporaryFile(suffix=".json") as out:
        subprocess.run([program, f"--benchmark_out={out.name}", "--benchmark_out_format=json",
                        "--benchmark_enable_random_interleaving=true",
                        f"--benchmark_repetitions={REPETITIONS}", *options],
                       check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=env)
        runs = json.load(out)["benchmarks"]
    best = {}
    for run in runs:
        if run.get("error_occurred"):
            sys.exit(f"{run['name']}: {run['error_message']}")
        if run["run_type"] == "iteration":
            name = re.sub(r"/(real_time|repeats:\d+)", "", run["run_name"])
            by_clock = "real_time" in run["run_name"]
            spent = run["real_time" if by_clock else "cpu_time"]
            best[name] = min(best.get(name, float("inf")), spent)
    return best


def request_cost(program):
    """Instructions and allocations of each request, by "name/side"."""
    costs = {}
    with tempfile.TemporaryDirectory() as folder:
        done = subprocess.run(["valgrind", "--tool=callgrind",
                               f"--callgrind-out-file={folder}/dump", program],
                              check=True, text=True, capture_output=True)
        for line in done.stdout.splitlines():
            name, side, calls, size = line.split("\t")
            costs[f"{name}/{side}"] = {"allocations": int(calls), "bytes": int(size)}
        for file in os.listdir(folder):
            with open(os.path.join(folder, file), errors="replace") as lines:
                text = lines.read()
            trigger = re.search(r"^desc: Trigger: Client Request: (.*)$", text, re.M)
            if trigger:
                total = int(re.search(r"^totals: (\d+)", text, re.M)[1])
                costs[trigger[1]]["instructions"] = total // 20  # runs of each, in cost.cpp
    return costs


def peak_of(process):
    """The largest peak in KiB of a process and of its children, by name, while it runs."""
    peaks = {}
    while process.poll() is None:
        try:
            with open(f"/proc/{process.pid}/task/{process.pid}/children") as children:
                pids = [str(process.pid), *children.read().split()]
            for pid in pids:
                with open(f"/proc/{pid}/status") as status:
                    text = status.read()
                name = re.search(r"^Name:\s*(.*)$", text, re.M)[1]
                peak = re.search(r"^VmHWM:\s*(\d+)", text, re.M)
                if peak and name in ("keymasterctl", "tee-worker"):
                    peaks[name] = int(peak[1])
        except OSError:
            pass  # it ended meanwhile
        time.sleep(0.005)
    return peaks


def encryption(programs):
    """Seconds for a file with openssl and with a TA in its own process, and the peaks."""
    with tempfile.TemporaryDirectory() as folder:
        env = dict(os.environ, KEYMASTER_TA_STATE=os.path.join(folder, "state"),
                   TEE_HOST="process")
        path = {name: os.path.join(folder, name) for name in ("key", "in", "out")}
        with open(path["in"], "wb") as plain:
            for _ in range(ENCRYPTED_MB):
                plain.write(os.urandom(1000000))
        tool = os.path.join(programs, "keymasterctl")
        subprocess.run([tool, "generate", "--algorithm", "aes", "--size", "256", "--key",
                        path["key"]], check=True, env=env, capture_output=True)
        commands = {
            "openssl": ["openssl", "enc", "-aes-256-ctr", "-K", "00" * 32, "-iv", "00" * 16,
                        "-in", path["in"], "-out", path["out"]],
            "keymasterctl": [tool, "encrypt", "--key", path["key"], "--in", path["in"], "--out",
                             path["out"]]}
        best = dict.fromkeys(commands, float("inf"))
        for _ in range(REPETITIONS):
            for name, command in commands.items():
                start = time.perf_counter()
                subprocess.run(command, check=True, env=env, capture_output=True)
                best[name] = min(best[name], time.perf_counter() - start)
                os.unlink(path["out"])
        best["peak"] = peak_of(subprocess.Popen(commands["keymasterctl"], env=env,
                                                stderr=subprocess.DEVNULL))
    return best


def secure_world(programs):
    """Operations a second, by where the TA runs and what is done."""
    rates = {}
    for host in ("caller", "process"):
        with tempfile.TemporaryDirectory() as state:
            env = dict(os.environ, KEYMASTER_TA_STATE=os.path.join(state, "state"), TEE_HOST=host,
                       QAVIX_EVENTS=os.path.join(state, "events"))
            best = google_benchmark(os.path.join(programs, "km_secure_world"),
                                    "--benchmark_min_time=0.1", env=env)
            rates[host] = {name: 1e9 / ns for name, ns in best.items()}
    return rates


def measure(build):
    programs = os.path.join(build, "bin")
    cost = os.path.join(programs, "km_cost")
    with open("/proc/cpuinfo") as lines:
        model = re.search(r"^model name\s*: (.*)$", lines.read(), re.M)
    return {
        "machine": f"{os.cpu_count()} cores of {model[1] if model else 'an unknown processor'}",
        "times": google_benchmark(os.path.join(programs, "km_bench"), "--benchmark_min_time=0.01"),
        "world": secure_world(programs),
        "encryption": encryption(programs),
        "requests": request_cost(cost),
        "peak": {mib: int(subprocess.run([cost, "update", str(mib)], check=True,
                                         capture_output=True).stdout)
                 for mib in (1, 16, 64, 256)}}


# ---- Reporting

def duration(ns):
    for unit, size in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
        if ns >= size:
            return f"{ns / size:.3g} {unit}"
    return f"{ns:.3g} ns"


def table(title, head, rows):
    lines = [f"### {title}", "", "| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    lines += ["| " + " | ".join(str(cell) for cell in row) + " |" for row in rows]
    return "\n".join(lines) + "\n"


def verdict(met):
    return "met" if met else "**missed**"


def added_times(times):
    """(request, nanoseconds with the library, nanoseconds of the raw calls)"""
    for name in sorted(times):
        if name.startswith("request/") and name.endswith("/library"):
            request = name.split("/")[1]
            yield request, times[name], times[f"request/{request}/floor"]


def requests(results):
    rows = []
    for name, library, floor in added_times(results["times"]):
        ours, raw = (results["requests"][f"{name}/{side}"] for side in ("library", "floor"))
        goal = "libcrypto's" if name in BY_LIBCRYPTO else verdict(library - floor < 1000)
        rows.append((name, duration(floor), duration(library), "+" + duration(library - floor),
                     f"{ours['instructions']:,}",
                     f"+{ours['instructions'] - raw['instructions']:,}",
                     f"{ours['allocations']} / {ours['bytes']:,} B", goal))
    return table("Requests against a TEE that returns at once (goal: < 1 µs more)",
                 ("request", "raw calls", "library", "added", "instructions", "of them added",
                  "allocations", "goal"), rows)


def marshalling(results):
    times, rows = results["times"], []
    for way in ("encode", "decode"):
        for content in ("integers", "mixed"):
            for count in (4, 12, 64):
                ours, *others = (times[f"{way}/{content}/{side}/{count}"]
                                 for side in ("library", *OTHERS))
                rows.append((f"{way}, {content}, {count}", duration(ours),
                             *(f"{duration(ns)} ({ns / ours:.2f}×)" for ns in others),
                             verdict(2 * ours <= others[0])))
    return table("Marshalling, and the others' time over the library's (goal: half of protobuf's)",
                 ("set", "library", *OTHERS, "goal"), rows)


def growth(results):
    rows = [(label, *(duration(results["times"][f"growth/{size}/{count}"] / count)
                      for count in (10, 1000, 100000)))
            for size, label in ((0, "integers"), (16, "16 B"), (1024, "1 KiB"))]
    return table("Growth: time to encode an entry of a set of so many",
                 ("values", "10", "1,000", "100,000"), rows)


def bulk(results):
    rows = []
    for mib, beyond in results["peak"].items():
        library, floor = (results["times"][f"bulk/{side}/{mib}"] for side in ("library", "floor"))
        rows.append((f"{mib} MiB", duration(floor), duration(library), f"{library / floor:.3f}",
                     f"{beyond:,} B", verdict(library <= 1.02 * floor and beyond <= 16384)))
    return table("Long updates (goals: ≤ 1.02; peak memory ≤ 16 KiB beyond input and output)",
                 ("update", "raw calls", "library", "ratio", "peak beyond", "goal"), rows)


def world(results):
    rates, file = results["world"], results["encryption"]
    rows = [(name, f"{rates['caller'][name]:,.0f}", f"{rates['process'][name]:,.0f}")
            for name in sorted(rates["caller"])]
    ratio = file["keymasterctl"] / file["openssl"]
    peaks = file["peak"]
    met = ratio <= 2 and max(peaks.values()) < 16384
    return (table("The embedded secure world: begin and finish, times a second",
                  ("operation", "TA in the caller", "TA in its own process"), rows) + "\n" +
            table(f"{ENCRYPTED_MB} MB with AES-256, TA in its own process (goals: ≤ 2; < 16 MiB)",
                  ("openssl enc", "keymasterctl encrypt", "ratio", "peak of tool and worker", "goal"),
                  [(f"{file['openssl']:.3f} s", f"{file['keymasterctl']:.3f} s", f"{ratio:.2f}",
                    " and ".join(f"{kib / 1024:.1f} MiB" for kib in peaks.values()),
                    verdict(met))]))


def bar_group(title, bars, top, parts):
    """One group of horizontal bars: (label, value, text). Returns the next top."""
    parts.append(f'<text x="12" y="{top}" font-weight="bold">{escape(title)}</text>')
    largest = max(value for _, value, _ in bars)
    for index, (label, value, text) in enumerate(bars):
        y = top + 10 + 17 * index
        width = max(1, 420 * value / largest)
        colour = "#b4b9c0" if label in (*OTHERS, "goal", "openssl") else "#2563a8"
        parts.append(f'<text x="200" y="{y + 11}" text-anchor="end">{escape(label)}</text>'
                     f'<rect x="206" y="{y}" width="{width:.1f}" height="13" fill="{colour}"/>'
                     f'<text x="{212 + width:.1f}" y="{y + 11}">{escape(text)}</text>')
    return top + 10 + 17 * len(bars) + 28


def chart(results):
    times, parts, top = results["times"], [], 24
    for way in ("encode", "decode"):
        values = {side: times[f"{way}/mixed/{side}/12"] for side in ("library", *OTHERS)}
        top = bar_group(f"{way.capitalize()} 12 parameters, a quarter of them 32-byte values",
                        [(side, ns, duration(ns)) for side, ns in values.items()], top, parts)
    added = [(name, library - floor, duration(library - floor))
             for name, library, floor in added_times(times) if name not in BY_LIBCRYPTO]
    top = bar_group("Time a request adds to its platform calls", [*added, ("goal", 1000, "1 µs")],
                    top, parts)
    top = bar_group(f"{ENCRYPTED_MB} MB with AES-256",
                    [(side, results["encryption"][side], f"{results['encryption'][side]:.3f} s")
                     for side in ("openssl", "keymasterctl")], top, parts)
    return (f'<svg xmlns="http://www.w3.org/2000/svg" width="760" height="{top}" '
            'font-family="sans-serif" font-size="12"><rect width="100%" height="100%" '
            'fill="white"/>\n' + "\n".join(parts) + "\n</svg>\n")


def main(build, folder):
    results = measure(build)
    text = f"Measured on {results['machine']}.\n\n" + "\n".join(
        part(results) for part in (requests, marshalling, growth, bulk, world))
    for name, content in (("results.json", json.dumps(results, indent=1, sort_keys=True)),
                          ("table.md", text), ("chart.svg", chart(results))):
        with open(os.path.join(folder, name), "w") as out:
            out.write(content)
    print(text)


main(*sys.argv[1:])
