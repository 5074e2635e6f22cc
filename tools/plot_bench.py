#!/usr/bin/env python3
"""Draws the scaling figures of `make bench` from its Google Benchmark JSON files.

    tools/plot_bench.py BUILD/bench-json docs/bench

A benchmark name is cut at '/': numeric parts ("1000", "2^24", "clients:32") give the x
value, the other parts name the series. Curated figures come first (FIGURES below); every
other family of a program gets a generic figure, so a program added later is drawn too.
Repeated runs of one name keep their best (lowest) time.
"""
import json
import os
import re
import sys
from collections import defaultdict

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402

SKIP = re.compile(r"^(iterations|repeats|min_time|real_time|process_time|manual_time|threads):?")
NUMBER = re.compile(r"^(?:[a-z_]+:)?(\d+(?:\.\d+)?|2\^\d+)$")


def x_value(part):
    m = NUMBER.match(part)
    if not m:
        return None
    v = m.group(1)
    return float(2 ** int(v[2:])) if v.startswith("2^") else float(v)


def parse(name):
    """(series, x) of a benchmark name; x is None when it has no numeric part."""
    series, x = [], None
    for part in name.split("/"):
        if SKIP.match(part):
            continue
        v = x_value(part)
        if v is not None and x is None:
            x = v
        elif v is None:
            series.append(part)
    return "/".join(series), x


def to_ns(bench, metric):
    if metric in ("cpu_time", "real_time"):
        scale = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[bench.get("time_unit", "ns")]
        return bench[metric] * scale
    return bench[metric] * 1e9  # per-item counters are seconds per item


def load(folder):
    programs = {}
    for f in sorted(os.listdir(folder)):
        if f.endswith(".json"):
            with open(os.path.join(folder, f)) as fh:
                try:
                    data = json.load(fh)
                except json.JSONDecodeError:
                    continue
            # Repeated benchmarks report aggregates only: their median stands for them.
            runs = [b for b in data.get("benchmarks", []) if (b.get("run_type", "iteration") == "iteration"
                    or b.get("aggregate_name") == "median") and not b.get("error_occurred")]
            programs[f[:-5]] = runs
    return programs


def series_points(runs, pattern, metric):
    pts = defaultdict(dict)
    for b in runs:
        s, x = parse(b["name"])
        if x is None or not re.search(pattern, s) or metric not in b and metric not in ("cpu_time", "real_time"):
            continue
        v = to_ns(b, metric)
        pts[s][x] = min(v, pts[s].get(x, v))
    return {s: sorted(p.items()) for s, p in pts.items() if p}


def line_figure(path, title, xlabel, ylabel, series, logx=True):
    if not series:
        return False
    fig, ax = plt.subplots(figsize=(7, 4.2))
    for name, pts in sorted(series.items()):
        xs, ys = zip(*pts)
        ax.plot(xs, ys, marker="o", label=name)
    if logx:
        ax.set_xscale("log")
    ax.set_yscale("log")
    ax.set_title(title)
    ax.set_xlabel(xlabel)
    ax.set_ylabel(ylabel)
    ax.grid(True, which="both", alpha=0.3)
    ax.legend(fontsize=7)
    fig.tight_layout()
    fig.savefig(path, dpi=110)
    plt.close(fig)
    return True


def precision_figure(path, runs):
    names = [parse(b["name"])[0] for b in runs]
    if not names:
        return False
    fig, (ax, ax2) = plt.subplots(1, 2, figsize=(9, 4.2))
    width = 0.25
    for k, key in enumerate(("p50_us", "p99_us", "max_us")):
        ax.bar([i + (k - 1) * width for i in range(len(runs))], [b.get(key, 0) for b in runs], width, label=key)
    ax.set_xticks(range(len(runs)), names, fontsize=8)
    ax.set_yscale("log")
    ax.set_ylabel("lateness (us)")
    ax.set_title("Lateness against the true deadline")
    ax.legend(fontsize=7)
    ax2.bar(range(len(runs)), [b.get("early", 0) for b in runs], label="early")
    ax2.bar(range(len(runs)), [b.get("early_over_half_ms", 0) for b in runs], label="early by > 0.5 ms")
    ax2.set_xticks(range(len(runs)), names, fontsize=8)
    ax2.set_title("Timers fired before their deadline (of 20,000)")
    ax2.legend(fontsize=7)
    fig.tight_layout()
    fig.savefig(path, dpi=110)
    plt.close(fig)
    return True


def xact_figure(path, runs):
    """Transactions per second by executors (100 in progress) and by transactions in
    progress (4 executors), end to end against the fan-out/fan-in floor."""
    pts = defaultdict(dict)
    for b in runs:
        parts = b["name"].split("/")
        if len(parts) >= 3 and parts[1].isdigit() and parts[2].isdigit() and "items_per_second" in b:
            pts[parts[0]][(int(parts[1]), int(parts[2]))] = b["items_per_second"]
    if not pts:
        return False
    fig, (ax, ax2) = plt.subplots(1, 2, figsize=(9, 4.2))
    for family, by in sorted(pts.items()):
        ex = sorted((e, v) for (e, w), v in by.items() if w == 100)
        wp = sorted((w, v) for (e, w), v in by.items() if e == 4)
        ax.plot([e for e, _ in ex], [v for _, v in ex], marker="o", label=family)
        ax2.plot([w for w, _ in wp], [v for _, v in wp], marker="o", label=family)
    for a, xl in ((ax, "executors (100 in progress)"), (ax2, "transactions in progress (4 executors)")):
        a.set_xscale("log")
        a.set_yscale("log")
        a.set_xlabel(xl)
        a.set_ylabel("transactions per second")
        a.grid(True, which="both", alpha=0.3)
        a.legend(fontsize=7)
    fig.suptitle("Transactions end to end, real clock")
    fig.tight_layout()
    fig.savefig(path, dpi=110)
    plt.close(fig)
    return True


def storm_figure(path, runs):
    """Watching under a storm: events delivered per second and the reader's CPU time per
    event, medians of the repeated storms."""
    rows = [b for b in runs if b.get("aggregate_name", "median") == "median" and "events_per_second" in b]
    if not rows:
        return False
    names = [b["name"].split("/")[0] for b in rows]
    fig, (ax, ax2) = plt.subplots(1, 2, figsize=(9, 4.2))
    ax.bar(names, [b["events_per_second"] for b in rows])
    ax.set_title("Events delivered per second (writer-bound)")
    ax2.bar(names, [b["reader_cpu_us_per_event"] for b in rows], color="tab:orange")
    ax2.set_title("Reader CPU time per event (us)")
    for a in (ax, ax2):
        a.tick_params(axis="x", labelsize=7)
    fig.tight_layout()
    fig.savefig(path, dpi=110)
    plt.close(fig)
    return True


SPECIAL = {"precision_bench": (precision_figure, "timer_precision.png"),
           "xact_bench": (xact_figure, "xact_throughput.png"),
           "inotify_bench": (storm_figure, "watch_storm.png")}

# program -> [(file, title, x label, series regex, metric)]
FIGURES = {
    "timer_wheel_bench": [
        ("timer_rearm", "Timer re-arm", "armed timers", r"_Rearm", "cpu_time"),
        ("timer_cancel_arm", "Timer cancel, then arm", "armed timers", r"_CancelArm", "cpu_time"),
        ("timer_fire", "Timer firing, per timer", "armed timers", r"Fire", "per_timer"),
    ],
    "loop_bench": [
        ("loop_turns", "Loop turn, per reactor run (reactors re-arming at 0)", "clock reactors",
         r"^(Turn_ReArmAtZero|Floor_Calls)$", "per_reactor"),
        ("loop_one_due", "Loop turn with one reactor due", "armed clock reactors", r"^Turn_OneDue$", "cpu_time"),
    ],
    "bfa_bench": [("allocator_churn", "Allocator alloc+free", "live blocks", r"Churn", "cpu_time")],
    "hbitmap_bench": [
        ("bitmap_search", "Lowest set bit, sparse", "bits", r"^find/.*/sparse/set/lowest$", "cpu_time"),
        ("bitmap_range_search", "Range search", "bits", r"^findInRange/", "cpu_time"),
    ],
    "socket_bench": [("socket_round_trips", "Command round trip", "concurrent clients", r"^RoundTrip/", "real_time")],
}


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    src, out = sys.argv[1], sys.argv[2]
    os.makedirs(out, exist_ok=True)
    programs = load(src)
    if not programs:
        sys.exit(f"no benchmark JSON in {src}: run 'make bench' first")
    written = []
    for prog, runs in programs.items():
        if prog in SPECIAL:
            draw, fname = SPECIAL[prog]
            if draw(os.path.join(out, fname), runs):
                written.append(fname)
            continue
        for fname, title, xlabel, pattern, metric in FIGURES.get(prog, []):
            series = series_points(runs, pattern, metric)
            if line_figure(os.path.join(out, fname + ".png"), title, xlabel, "ns" if metric != "per_timer" else
                           "ns per timer", series):
                written.append(fname + ".png")
        if prog in FIGURES:
            continue
        # A program without curated figures (added later): one figure per family.
        rest = defaultdict(dict)
        for s, pts in series_points(runs, r".", "cpu_time").items():
            if len(pts) > 1:
                rest[s.split("/")[0]][s] = pts
        for family, series in rest.items():
            fname = f"{prog.replace('_bench', '')}_{re.sub(r'[^A-Za-z0-9]+', '_', family)}.png".lower()
            if line_figure(os.path.join(out, fname), f"{prog}: {family}", "size", "ns (cpu)", dict(list(series.items())[:10])):
                written.append(fname)
    for w in written:
        print(os.path.join(out, w))


if __name__ == "__main__":
    main()
