"""Turns FOLDER/results.json into FOLDER/table.md and FOLDER/chart.svg.

report.py FOLDER
"""
import json
import os
import sys
from html import escape

OTHERS = ("protobuf", "FlatBuffers", "MessagePack")


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


def pairs(times, prefix):
    """(name, library's ns, floor's ns) of each benchmark that has both sides."""
    for name in times:
        if name.startswith(prefix) and "/library" in name:
            yield (name[len(prefix):].replace("/library", ""), times[name]["ns"],
                   times[name.replace("/library", "/floor")]["ns"])


def requests(results):
    rows = []
    costs = results["requests"]
    for name, library, floor in pairs(results["times"], "request/"):
        ours, raw = costs[name + "/library"], costs[name + "/floor"]
        invocations = 7 if name == "ImportWrappedKeyNew" else 1
        added = library - floor
        rows.append((name, f"< {invocations} µs more", duration(floor), duration(library),
                     f"{library / floor:.2f}", ("+" if added >= 0 else "−") + duration(abs(added)),
                     f"{ours['instructions'] - raw['instructions']:+,}",
                     f"{ours['allocations']} / {ours['bytes']:,} B",
                     verdict(added < 1000 * invocations)))
    return table("Requests against a TEE that returns at once",
                 ("request", "goal", "floor", "this", "ratio", "added", "instructions added",
                  "allocations", "goal"), rows)


def marshalling(results):
    times, rows = results["times"], []
    for way in ("encode", "decode"):
        for content in ("integers", "mixed"):
            for count in (4, 12, 64):
                ours = times[f"marshal/{way}/{content}/library/{count}"]["ns"]
                others = [times[f"marshal/{way}/{content}/{other}/{count}"]["ns"]
                          for other in OTHERS]
                rows.append((f"{way}, {content}, {count}", duration(ours),
                             *(f"{duration(ns)} ({ns / ours:.2f}×)" for ns in others),
                             verdict(ours <= min(others)), verdict(others[0] >= 2 * ours)))
    return table("Marshalling beside other serialisers (in brackets: their time over this)",
                 ("set", "this", *OTHERS, "quickest", "twice protobuf"), rows)


def growth(results):
    times, rows = results["times"], []
    for content in ("integers", "16 B", "1 KiB"):
        for side in ("library", "floor", "one by one"):
            cells = []
            for count in (10, 100, 1000, 10000, 100000):
                run = times.get(f"growth/{content}/{side}/{count}")
                moved = run and run.get("moved_per_entry")
                cells.append("" if run is None else duration(run["ns"] / count) +
                             ("" if moved is None else f", {moved:,.0f} B"))
            rows.append((f"{content}, {side}", *cells))
    return table("Growth: time and bytes moved by memcpy_s, per entry",
                 ("values", "10", "100", "1,000", "10,000", "100,000"), rows)


def bulk(results):
    rows = []
    for size, library, floor in pairs(results["times"], "bulk"):
        mib = size.strip("/")
        beyond = results["peak"][mib]
        rows.append((f"{mib} MiB", "≤ 1.02", duration(floor), duration(library),
                     f"{library / floor:.3f}", f"{beyond:,} B",
                     verdict(library <= 1.02 * floor and beyond <= 16384)))
    return table("Long updates, and the peak memory beyond input and output (goal: 16 KiB)",
                 ("update", "goal", "floor", "this", "ratio", "peak beyond", "goal"), rows)


def key_work(results):
    rows = []
    for name, run in results["rsa"].items():
        ratio = run["library_ms"] / run["floor_ms"]
        rows.append((f"RSA generation, {name.split('/')[1]} bits", "≤ 1.01",
                     duration(run["floor_ms"] * 1e6), duration(run["library_ms"] * 1e6),
                     f"{ratio:.4f}", verdict(ratio <= 1.01)))
    return table("RSA generation beside libcrypto's own, from the same seeds",
                 ("work", "goal", "floor", "this", "ratio", "goal"), rows)


def threads(results):
    times, rows = results["times"], []
    for count in (1, 2, 4, 8):
        cells = []
        for side in ("floor", "library"):
            per_second = times[f"threads/{side}/threads:{count}"]["items_per_second"]
            alone = times[f"threads/{side}/threads:1"]["items_per_second"]
            cells += [f"{per_second / 1e6:.2f} M/s", f"{per_second / alone:.2f}×"]
        rows.append((count, *cells))
    return table("Threads: TivasKmBegin a second",
                 ("threads", "floor", "gain", "this", "gain"), rows)


def footprint(results):
    rows = [(name, f"{value:,}") for name, value in results["footprint"].items()]
    rows.append(("start-up of a process with it, and with its dependencies alone",
                 " and ".join(map(duration, results["start"]))))
    return table("Footprint (bytes)", ("what", "figure"), rows)


def world(results):
    rows = [(name.split("/", 1)[1], f"{run['items_per_second']:,.0f}",
             f"{run['library_us']:.2f} µs", f"{100 * run['share']:.1f} %")
            for name, run in results["world"].items()]
    return table("Operations on the embedded secure world (begin and finish)",
                 ("operation", "a second", "in the library", "share"), rows)


def bar_group(title, bars, top, parts):
    """One group of horizontal bars: (label, value, text, colour). Returns the next top."""
    parts.append(f'<text x="12" y="{top}" font-weight="bold">{escape(title)}</text>')
    largest = max(value for _, value, _, _ in bars)
    for index, (label, value, text, colour) in enumerate(bars):
        y = top + 10 + 17 * index
        width = max(1, 420 * value / largest)
        parts.append(f'<text x="200" y="{y + 11}" text-anchor="end">{escape(label)}</text>'
                     f'<rect x="206" y="{y}" width="{width:.1f}" height="13" fill="{colour}"/>'
                     f'<text x="{212 + width:.1f}" y="{y + 11}">{escape(text)}</text>')
    return top + 10 + 17 * len(bars) + 28


def chart(results):
    times, parts, top = results["times"], [], 24
    ours, grey = "#2563a8", "#b4b9c0"
    for way in ("encode", "decode"):
        for content in ("integers", "mixed"):
            bars = []
            for side in ("library", *OTHERS):
                ns = times[f"marshal/{way}/{content}/{side}/12"]["ns"]
                bars.append((side, ns, duration(ns), ours if side == "library" else grey))
            title = "integers" if content == "integers" else "a quarter of them 32-byte values"
            top = bar_group(f"{way.capitalize()} 12 parameters, {title}", bars, top, parts)
    added = [(name, max(0, library - floor), duration(max(0, library - floor)), ours)
             for name, library, floor in pairs(times, "request/")
             if "PKCS#8" not in name and name not in ("ExportKey", "ImportWrappedKeyNew")]
    added.append(("goal", 1000, "1 µs", grey))
    top = bar_group("Time a request adds to its platform calls", added, top, parts)
    return (f'<svg xmlns="http://www.w3.org/2000/svg" width="760" height="{top}" '
            'font-family="sans-serif" font-size="12"><rect width="100%" height="100%" '
            f'fill="white"/>\n' + "\n".join(parts) + "\n</svg>\n")


def main(folder):
    with open(os.path.join(folder, "results.json")) as source:
        results = json.load(source)
    about = results["machine"]
    text = f"Measured on {about['cores']} cores of {about['processor']}.\n\n" + "\n".join(
        part(results) for part in (requests, marshalling, growth, bulk, key_work, threads,
                                   footprint, world))
    with open(os.path.join(folder, "table.md"), "w") as out:
        out.write(text)
    with open(os.path.join(folder, "chart.svg"), "w") as out:
        out.write(chart(results))
    print(text)


main(*sys.argv[1:])
