#!/usr/bin/env python3
"""Fuzzes all targets, one a processor, until each has had so much processor time.

  fuzz/campaign.py FOLDER SECONDS TARGET... -- OPTION...

FOLDER has bin/, and gets corpus/ and campaign.json; a campaign that was stopped goes on from there.
The target that had the least goes first, in slices; every other slice of a target is guided by the
values that are compared as well. Ends with a table; the status is 1 when a target crashed, which is
then left alone.
"""
import json
import os
import re
import subprocess
import sys

SLICE_SECONDS = 300


def start(folder, target, count, seconds, options):
    corpus = f"{folder}/corpus/{target}"
    os.makedirs(corpus, exist_ok=True)
    log = open(f"{folder}/{target}.log", "w", encoding="utf-8")
    command = [f"{folder}/bin/fuzz_{target}", *options, f"-max_total_time={seconds}",
               "-print_final_stats=1", f"-use_value_profile={count % 2}", corpus,
               f"fuzz/corpus/{target}"]
    return subprocess.Popen(command, stdout=log, stderr=subprocess.STDOUT)


def number(pattern, text):
    found = re.findall(pattern, text)
    return int(found[-1]) if found else 0


def main():
    split = sys.argv.index("--")
    folder, wanted, targets = sys.argv[1], int(sys.argv[2]), sys.argv[3:split]
    options = sys.argv[split + 1:]
    state_file = f"{folder}/campaign.json"
    state = {}
    if os.path.exists(state_file):
        with open(state_file, encoding="utf-8") as file:
            state = json.load(file)
    for target in targets:
        state.setdefault(target, {"cpu": 0, "runs": 0, "slices": 0, "edges": 0, "crashed": False})
    running = {}  # by process id; the process is kept, or the next one's start might reap it

    def start_next():
        busy = [target for target, _ in running.values()]
        waiting = [t for t in targets if t not in busy and not state[t]["crashed"]
                   and state[t]["cpu"] < wanted]
        if not waiting:
            return False
        target = min(waiting, key=lambda t: state[t]["cpu"])
        seconds = max(1, min(SLICE_SECONDS, int(wanted - state[target]["cpu"]) + 1))
        process = start(folder, target, state[target]["slices"], seconds, options)
        running[process.pid] = (target, process)
        return True

    while len(running) < (os.cpu_count() or 1) and start_next():
        pass
    while running:
        pid, status, usage = os.wait4(-1, 0)
        target, process = running.pop(pid)
        process.returncode = os.waitstatus_to_exitcode(status)
        entry = state[target]
        with open(f"{folder}/{target}.log", encoding="utf-8", errors="replace") as file:
            text = file.read()
        entry["cpu"] += round(usage.ru_utime + usage.ru_stime)
        entry["runs"] += number(r"stat::number_of_executed_units: *(\d+)", text)
        entry["edges"] = max(entry["edges"], number(r" cov: (\d+)", text))
        entry["slices"] += 1
        entry["crashed"] = status != 0
        if entry["crashed"]:
            os.replace(f"{folder}/{target}.log", f"{folder}/{target}.crash.log")
        with open(state_file, "w", encoding="utf-8") as file:
            json.dump(state, file, indent=1)
        start_next()

    print(f"{'target':16} {'CPU s':>6} {'runs':>12} {'edges':>6} {'inputs':>6}")
    for target in targets:
        entry = state[target]
        inputs = len(os.listdir(f"{folder}/corpus/{target}"))
        print(f"{target:16} {entry['cpu']:6} {entry['runs']:12} {entry['edges']:6} {inputs:6}"
              + (f"  CRASHED, see {target}.crash.log" if entry["crashed"] else ""))
    sys.exit(any(entry["crashed"] for entry in state.values()))


if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        sys.exit(130)
