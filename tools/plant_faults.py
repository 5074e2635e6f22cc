#!/usr/bin/env python3
"""Plants one-line faults in a copy of the tree, one at a time, and reports which of them
no test catches.

Each fault in tools/faults.list replaces one exact, unique piece of text in one file. For
each fault the script copies the tree once (into --work), rebuilds incrementally, runs the
suite with ctest and puts the file back. A fault is:
  caught     the build went through and at least one test failed;
  SURVIVED   the build went through and every test passed: a hole in the suite;
  no-build   the fault does not compile (a bad fault, not a catch);
  no-anchor  its text is no longer in the file exactly once (the code moved: fix the list).

    tools/plant_faults.py                 # every fault
    tools/plant_faults.py --only 3,7      # some of them
    tools/plant_faults.py --list          # show the list and whether each anchor is found

The exit status is 0 when every fault that applied was caught, 1 otherwise.
"""
import argparse
import json
import os
import re
import signal
import shutil
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def load_faults(path):
    """Reads 'file | anchor | replacement | what' lines; '#' starts a comment line.
    Inside anchor and replacement, a backslash-bar stands for a literal bar and a
    backslash-n for a line break (a fault may span two lines)."""
    faults = []
    with open(path, encoding="utf-8") as f:
        for n, line in enumerate(f, 1):
            line = line.rstrip("\n")
            if not line.strip() or line.lstrip().startswith("#"):
                continue
            parts = [p.strip().replace("\\|", "|").replace("\\n", "\n") for p in split_bars(line)]
            if len(parts) != 4:
                sys.exit(f"{path}:{n}: want 'file | anchor | replacement | what'")
            faults.append({"id": len(faults) + 1, "file": parts[0], "anchor": parts[1],
                           "replacement": parts[2], "what": parts[3]})
    return faults


def split_bars(line):
    out, cur, i = [], "", 0
    while i < len(line):
        if line[i] == "\\" and i + 1 < len(line) and line[i + 1] == "|":
            cur += "\\|"
            i += 2
            continue
        if line[i] == "|":
            out.append(cur)
            cur = ""
        else:
            cur += line[i]
        i += 1
    out.append(cur)
    return out


def anchor_count(tree, fault):
    try:
        with open(os.path.join(tree, fault["file"]), encoding="utf-8") as f:
            return f.read().count(fault["anchor"])
    except FileNotFoundError:
        return 0


def copy_tree(dest):
    """The tracked and untracked-but-not-ignored files, as they are in the work tree."""
    files = subprocess.run(["git", "ls-files", "-co", "--exclude-standard"], cwd=ROOT, check=True,
                           capture_output=True, text=True).stdout.split("\n")
    for rel in filter(None, files):
        src = os.path.join(ROOT, rel)
        if not os.path.isfile(src):
            continue
        dst = os.path.join(dest, rel)
        os.makedirs(os.path.dirname(dst), exist_ok=True)
        if not os.path.exists(dst) or open(src, "rb").read() != open(dst, "rb").read():
            shutil.copy(src, dst)  # a fresh time: the build must see the change


def run(cmd, cwd, timeout):
    # In a process group of its own: on a timeout the tests ctest started go with it. A fault
    # that makes a test spin would otherwise leave it spinning for good, slowing every later
    # build, test run and benchmark on the machine.
    p = subprocess.Popen(cmd, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                         start_new_session=True)
    try:
        out, _ = p.communicate(timeout=timeout)
        return p.returncode, out
    except subprocess.TimeoutExpired:
        os.killpg(p.pid, signal.SIGKILL)
        out, _ = p.communicate()
        return 124, out + "\n(timed out)"


def failed_tests(ctest_output):
    """The failing tests, from ctest's progress lines ("12/137 Test #5: Suite.Case ...***Failed"),
    which a run cut short by the whole-run timeout has too, unlike the closing list."""
    names = []
    for line in ctest_output.splitlines():
        m = re.search(r"Test\s+#\d+: (\S+) .*\*\*\*(Failed|Timeout|Exception|Not Run)", line)
        if m and m.group(1) not in names:
            names.append(m.group(1))
    return names


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--faults", default=os.path.join(ROOT, "tools", "faults.list"))
    ap.add_argument("--work", default=os.path.join(ROOT, "build-faults"))
    ap.add_argument("--only", default="", help="comma-separated fault ids")
    ap.add_argument("--list", action="store_true", help="list the faults and their anchors")
    ap.add_argument("--jobs", type=int, default=os.cpu_count() or 2)
    ap.add_argument("--test-timeout", type=int, default=600, help="seconds for one whole ctest run")
    ap.add_argument("--first-failure", action="store_true",
                    help="stop a fault's test run at its first failing test (faster; names one test)")
    ap.add_argument("--report", default="", help="also write every fault's verdict and failing tests here (JSON)")
    args = ap.parse_args()

    faults = load_faults(args.faults)
    if args.only:
        wanted = {int(x) for x in args.only.split(",")}
        faults = [f for f in faults if f["id"] in wanted]
    if args.list:
        for f in faults:
            ok = "ok" if anchor_count(ROOT, f) == 1 else "NO ANCHOR"
            print(f"{f['id']:3} {ok:9} {f['file']}: {f['what']}")
        return 0

    tree = os.path.join(args.work, "tree")
    build = os.path.join(args.work, "build")
    os.makedirs(tree, exist_ok=True)
    copy_tree(tree)
    gen = ["-G", "Ninja"] if shutil.which("ninja") else []
    # A fault in the library's sources relinks only the library: the test programs load
    # it at run time, so relinking each of them would only cost time.
    rc, out = run(["cmake", "-S", tree, "-B", build, *gen, "-DCMAKE_BUILD_TYPE=Debug",
                   "-DVELL_BUILD_BENCH=OFF", "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON"], ROOT, 600)
    if rc:
        sys.exit("configure failed:\n" + out[-3000:])
    ctest = ["ctest", "--test-dir", build, "-j", str(args.jobs), "-E", "install_consumer",
             "--timeout", "120"] + (["--stop-on-failure"] if args.first_failure else [])
    build_cmd = ["cmake", "--build", build, "-j", str(args.jobs)]
    rc, out = run(build_cmd, ROOT, 1800)
    if rc:
        sys.exit("the unfaulted tree does not build:\n" + out[-3000:])
    rc, out = run(ctest, ROOT, args.test_timeout)
    if rc:
        sys.exit("the unfaulted tree fails its tests:\n" + out[-3000:])

    results = []
    for f in faults:
        path = os.path.join(tree, f["file"])
        start = time.time()
        if anchor_count(tree, f) != 1:
            results.append((f, "no-anchor", []))
            print(f"{f['id']:3} no-anchor  {f['file']}: {f['what']}", flush=True)
            continue
        original = open(path, encoding="utf-8").read()
        try:
            with open(path, "w", encoding="utf-8") as out_f:
                out_f.write(original.replace(f["anchor"], f["replacement"], 1))
            rc, out = run(build_cmd, ROOT, 1800)
            if rc:
                verdict, names = "no-build", []
            else:
                rc, out = run(ctest, ROOT, args.test_timeout)
                names = failed_tests(out)
                verdict = "caught" if rc else "SURVIVED"
        finally:
            with open(path, "w", encoding="utf-8") as out_f:
                out_f.write(original)
        results.append((f, verdict, names))
        shown = ", ".join(names[:3]) + (" ..." if len(names) > 3 else "")
        print(f"{f['id']:3} {verdict:9}  {f['file']}: {f['what']}  [{time.time() - start:.0f}s] {shown}",
              flush=True)
    run(build_cmd, ROOT, 1800)  # leave the copy built as it was
    if args.report:
        with open(args.report, "w", encoding="utf-8") as out_f:
            json.dump([{"id": f["id"], "file": f["file"], "what": f["what"], "verdict": v, "failed": names}
                       for f, v, names in results], out_f, indent=1)

    counts = {}
    for _, v, _ in results:
        counts[v] = counts.get(v, 0) + 1
    print("\n" + ", ".join(f"{n} {v}" for v, n in sorted(counts.items())))
    survivors = [f for f, v, _ in results if v == "SURVIVED"]
    for f in survivors:
        print(f"SURVIVED {f['id']}: {f['file']}: {f['what']}")
    return 1 if survivors else 0


if __name__ == "__main__":
    sys.exit(main())
