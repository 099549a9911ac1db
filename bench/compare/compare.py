#!/usr/bin/env python3
"""zor side by side with perf record and the gperftools CPU profiler.

One interleaved run: every round runs each workload natively and under each
profiler at each rate, so that a change in the machine's load hits all of
them alike. Prints one table:

  overhead   wall and CPU time of the whole command against the native run
             (medians of the rounds, and their spread, max - min, in points);
             for the programs that time their own work, also the program's
             own elapsed time
  per run    what each profiler costs a run however short: the same command
             on a run of the workload that does next to nothing, less that
             run's native time (wall and CPU seconds, medians); and the CPU
             time beyond it: the whole command's CPU time less that cost,
             against the native run. (Only CPU time adds up so: perf record
             takes at least a second of wall time however short the program,
             which a longer program hides.)
  accuracy   each profiler's share of each hot function against the truth,
             and its largest error in points
  answer     seconds from the end of the profiled program to a summary with
             source lines on the terminal: zor profile against perf record
             followed by perf report --sort sym,srcline

  bench/compare/compare.py [--build DIR] [--rounds N] [--rates 50,1000]
                           [--workloads zor-example,zor-threads,xz]
                           [--profilers zor,perf,gperftools] [--no-answer]

Needs linux-perf, google-perftools and python3.11-dbg: scripts/install-deps.sh
--compare installs them (as root; the script offers to run it). perf samples
the software clock (cpu-clock), since these machines have no hardware
counters.
"""

import argparse
import os
import re
import resource
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))

# Where the shares are known: from the program's design, or printed by it.
EXAMPLE_TRUTH = {  # two threads of equal work: 50/30/20 and 75/25 of each
    "spin_alpha": 25.0, "spin_beta": 15.0, "spin_gamma": 10.0, "spin_delta": 37.5, "spin_epsilon": 12.5,
}

PYTHON_SCRIPT = """
import sys, time
def inner(n):
    total = 0
    for i in range(n):
        total += i * i % 7
    return total
def outer(rounds):
    return sum(inner(20000) for _ in range(rounds))
outer(int(sys.argv[1]))
sys.stderr.write("zor-compare-end %.6f\\n" % time.time())
sys.stderr.flush()
"""


def fail(message):
    sys.stderr.write("compare: %s\n" % message)
    sys.exit(1)


def find_profiler_library():
    for directory in ("/usr/lib/x86_64-linux-gnu", "/usr/lib/aarch64-linux-gnu", "/usr/lib"):
        path = os.path.join(directory, "libprofiler.so.0")
        if os.path.exists(path):
            return path
    return None


def find_python_dbg():
    for name in ("python3.11d", "python3.11-dbg", "python3-dbg"):
        path = shutil.which(name)
        if path:
            return path
    return None


def ensure_tools():
    missing = []
    if not shutil.which("perf"):
        missing.append("linux-perf")
    if not find_profiler_library() or not (shutil.which("google-pprof") or shutil.which("pprof")):
        missing.append("google-perftools")
    if not find_python_dbg():
        missing.append("python3.11-dbg")
    if not missing:
        return
    script = os.path.join(ROOT, "scripts", "install-deps.sh")
    if os.geteuid() != 0:
        fail("missing %s: run %s --compare as root" % (", ".join(missing), script))
    sys.stderr.write("compare: installing %s\n" % ", ".join(missing))
    subprocess.run([script, "--compare"], check=True)


def run_measured(command, env=None, cwd=None, stdin=None):
    """Runs command; returns (wall s, CPU s of it and its children, stdout, stderr)."""
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    start = time.monotonic()
    result = subprocess.run(command, env=env, cwd=cwd, stdin=stdin, stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, text=True, errors="replace")
    wall = time.monotonic() - start
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    cpu = (after.ru_utime - before.ru_utime) + (after.ru_stime - before.ru_stime)
    if result.returncode != 0:
        fail("%s exited with %d:\n%s%s" % (" ".join(command), result.returncode, result.stdout[-2000:],
                                            result.stderr[-2000:]))
    return wall, cpu, result.stdout, result.stderr


class Tools:
    def __init__(self, build, need_zor=True):
        self.zor = os.path.join(build, "bin", "zor")
        if need_zor and not os.access(self.zor, os.X_OK):
            fail("no %s: build the zor target first" % self.zor)
        self.library = find_profiler_library()
        self.pprof = shutil.which("google-pprof") or shutil.which("pprof")
        self.python = find_python_dbg()


# --- the profilers ---------------------------------------------------------
# Each returns (command, env, shares-reader); the reader gives function ->
# percent of the samples, from the files that the run left in workdir.

def native(tools, rate, program, workdir):
    return program, None, None


def under_zor(tools, rate, program, workdir):
    folded = os.path.join(workdir, "zor.folded")
    command = [tools.zor, "profile", "--quiet", "--interval", "%g" % (1000.0 / rate),
               "-o", os.path.join(workdir, "run.zor"), "--folded", folded, "--"] + program
    return command, None, lambda: folded_shares(folded)


def under_perf(tools, rate, program, workdir):
    data = os.path.join(workdir, "perf.data")
    command = ["perf", "record", "-q", "-e", "cpu-clock", "-F", str(rate), "-g", "-o", data, "--"] + program

    def shares():
        report = subprocess.run(["perf", "report", "-i", data, "--no-children", "--sort", "sym", "--stdio",
                                 "-F", "overhead,sym"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                text=True, errors="replace").stdout
        found = {}
        for line in report.splitlines():
            match = re.match(r"\s*([\d.]+)%\s+\[[.k]\]\s+(\S+)", line)
            if match:
                found[match.group(2)] = found.get(match.group(2), 0.0) + float(match.group(1))
        return found
    return command, None, shares


def under_gperftools(tools, rate, program, workdir):
    profile = os.path.join(workdir, "cpu.prof")
    env = dict(os.environ, LD_PRELOAD=tools.library, CPUPROFILE=profile, CPUPROFILE_FREQUENCY=str(rate))

    def shares():
        text = subprocess.run([tools.pprof, "--text", program[0], profile], stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL, text=True, errors="replace").stdout
        found = {}
        for line in text.splitlines():
            match = re.match(r"\s*\d+\s+([\d.]+)%\s+[\d.]+%\s+\d+\s+[\d.]+%\s+(\S+)", line)
            if match:
                found[match.group(2)] = float(match.group(1))
        return found
    return program, env, shares


def folded_shares(path):
    """Self shares from folded stacks: the last frame of each line takes its value."""
    totals = {}
    with open(path) as folded:
        for line in folded:
            stack, _, value = line.rstrip("\n").rpartition(" ")
            if not stack:
                continue
            leaf = stack.split(";")[-1]
            # A frame may carry its place: "name (file:line)" or "name:line".
            leaf = re.split(r"[ (:]", leaf.strip(), 1)[0]
            totals[leaf] = totals.get(leaf, 0.0) + float(value)
    everything = sum(totals.values())
    return {name: 100.0 * value / everything for name, value in totals.items()} if everything else {}


PROFILERS = [("zor", under_zor), ("perf", under_perf), ("gperftools", under_gperftools)]


# --- the workloads ---------------------------------------------------------

def workloads(tools, build, names, workdir):
    # Each with a run of it that does next to nothing: what a profiler costs
    # any run.
    chosen = []
    for name in names:
        if name == "zor-example":
            example = os.path.join(build, "bin", "zor-example")
            chosen.append((name, [example, "--work", "1500"], lambda out: EXAMPLE_TRUTH, elapsed_of,
                           [example, "--work", "1"]))
        elif name == "zor-threads":
            threads = os.path.join(build, "bin", "zor-threads")
            chosen.append((name, [threads, "--threads", "4", "--work", "400"], truth_printed, elapsed_of,
                           [threads, "--threads", "4", "--work", "1"]))
        elif name == "xz":
            data = os.path.join(workdir, "xz-input")
            if not os.path.exists(data):
                make_xz_input(data)
            tiny = os.path.join(workdir, "xz-tiny")
            with open(tiny, "w") as out:
                out.write("x")
            chosen.append((name, ["xz", "-9", "-T1", "-k", "-f", "-c", data], None, None,
                           ["xz", "-9", "-T1", "-k", "-f", "-c", tiny]))
        else:
            fail("unknown workload %s" % name)
    for _, program, _, _, _ in chosen:
        if not os.access(program[0], os.X_OK) and not shutil.which(program[0]):
            fail("no %s: build it first" % program[0])
    return chosen


def make_xz_input(path):
    # Text that compresses like source code: words from a small vocabulary in
    # random order, so that xz works hard for a few seconds.
    import random
    rng = random.Random(16)
    words = ["merge", "tree", "rank", "sample", "thread", "count", "node", "position", "file", "line",
             "function", "profile", "range", "map", "set", "brief", "total", "child", "parent", "index"]
    with open(path, "w") as out:
        for _ in range(300000):
            out.write(" ".join(rng.choice(words) for _ in range(8)) + ";\n")


def truth_printed(output):
    match = re.search(r"^truth:(.*)$", output, re.M)
    if not match:
        return None
    return {name: float(share) for name, share in re.findall(r"(\S+) ([\d.]+)%", match.group(1))}


def elapsed_of(output):
    match = re.search(r"in ([\d.]+) s", output)
    return float(match.group(1)) if match else None


# --- the table -------------------------------------------------------------

def median_and_spread(values):
    return statistics.median(values), (max(values) - min(values)) if len(values) > 1 else 0.0


def accuracy(shares, truth):
    hot = {name: share for name, share in truth.items() if share >= 5.0}
    errors = {name: shares.get(name, 0.0) - share for name, share in hot.items()}
    return errors


def time_to_answer(tools, rate, workdir, rounds):
    script = os.path.join(workdir, "spin.py")
    with open(script, "w") as out:
        out.write(PYTHON_SCRIPT)
    program = [tools.python, script, "60"]
    zor_times, perf_times = [], []
    for _ in range(rounds):
        command, _, _ = under_zor(tools, rate, program, workdir)
        command.remove("--quiet")
        _, _, _, err = run_measured(command)
        done = time.time()
        zor_times.append(done - end_mark(err))

        data = os.path.join(workdir, "answer.data")
        _, _, _, err = run_measured(["perf", "record", "-q", "-e", "cpu-clock", "-F", str(rate), "-g", "-o", data,
                                     "--"] + program)
        recorded = time.time()
        end = end_mark(err)
        run_measured(["perf", "report", "-i", data, "--sort", "sym,srcline", "--stdio"])
        perf_times.append(time.time() - recorded + (recorded - end))
    return statistics.median(zor_times), statistics.median(perf_times)


def end_mark(stderr):
    match = re.search(r"zor-compare-end ([\d.]+)", stderr)
    if not match:
        fail("the script's end mark is missing")
    return float(match.group(1))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default=os.path.join(ROOT, "build"))
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--rates", default="50,1000")
    parser.add_argument("--workloads", default="zor-example,zor-threads,xz")
    parser.add_argument("--profilers", default="zor,perf,gperftools")
    parser.add_argument("--no-answer", action="store_true", help="leave out the time to answer")
    args = parser.parse_args()

    ensure_tools()
    profilers = [entry for entry in PROFILERS if entry[0] in args.profilers.split(",")]
    tools = Tools(os.path.abspath(args.build), "zor" in args.profilers.split(","))
    rates = [int(rate) for rate in args.rates.split(",")]
    workdir = tempfile.mkdtemp(prefix="zor-compare-")
    chosen = workloads(tools, os.path.abspath(args.build), args.workloads.split(","), workdir)

    configs = [("native", 0, native)] + [(name, rate, make) for rate in rates for name, make in profilers]
    runs = {}  # (workload, profiler, rate) -> list of (wall, cpu, elapsed, shares)
    tinies = {}  # the same for the run that does next to nothing: (wall, cpu)
    for round_number in range(args.rounds):
        for workload, program, truth, elapsed, tiny in chosen:
            for name, rate, make in configs:
                command, env, reader = make(tools, rate, program, workdir)
                wall, cpu, out, err = run_measured(command, env=env, cwd=workdir)
                shares = reader() if reader else None
                runs.setdefault((workload, name, rate), []).append(
                    (wall, cpu, elapsed(out + err) if elapsed else None, shares, out + err))
                command, env, _ = make(tools, rate, tiny, workdir)
                wall, cpu, _, _ = run_measured(command, env=env, cwd=workdir)
                tinies.setdefault((workload, name, rate), []).append((wall, cpu))
        sys.stderr.write("compare: round %d of %d done\n" % (round_number + 1, args.rounds))

    lines = []
    row = "| %-11s | %-10s | %5s | %14s | %14s | %14s | %13s | %12s | %-44s | %6s |"
    lines.append(row % ("workload", "profiler", "Hz", "wall", "CPU", "program wall", "per run",
                        "CPU beyond", "share of hot functions (truth)", "max err"))
    lines.append("|" + "|".join("-" * (width + 2) for width in (11, 10, 5, 14, 14, 14, 13, 12, 44, 6)) + "|")
    for workload, program, truth, elapsed, tiny in chosen:
        base = runs[(workload, "native", 0)]
        base_wall = statistics.median(r[0] for r in base)
        base_cpu = statistics.median(r[1] for r in base)
        base_elapsed = [r[2] for r in base if r[2] is not None]
        base_elapsed = statistics.median(base_elapsed) if base_elapsed else None
        tiny_wall = statistics.median(t[0] for t in tinies[(workload, "native", 0)])
        tiny_cpu = statistics.median(t[1] for t in tinies[(workload, "native", 0)])
        lines.append(row % (workload, "native", "", "%.2f s" % base_wall, "%.2f s" % base_cpu,
                            "%.2f s" % base_elapsed if base_elapsed else "", "%.3f s" % tiny_wall, "", "", ""))
        for name, rate, _ in configs[1:]:
            rounds = runs[(workload, name, rate)]
            wall = median_and_spread([100.0 * (r[0] / base_wall - 1) for r in rounds])
            cpu = median_and_spread([100.0 * (r[1] / base_cpu - 1) for r in rounds])
            # The cost of any run, and what is left beyond it.
            fixed_wall = statistics.median(t[0] for t in tinies[(workload, name, rate)]) - tiny_wall
            fixed_cpu = statistics.median(t[1] for t in tinies[(workload, name, rate)]) - tiny_cpu
            per_run = "%.2f/%.2f s" % (fixed_wall, fixed_cpu)
            cpu_beyond = median_and_spread([100.0 * ((r[1] - fixed_cpu) / base_cpu - 1) for r in rounds])
            prog = ""
            if base_elapsed:
                values = [100.0 * (r[2] / base_elapsed - 1) for r in rounds if r[2] is not None]
                if values:
                    prog = "%+.1f%% ±%.1f" % median_and_spread(values)
            share_text, worst = "", ""
            if truth:
                per_round = []
                for r in rounds:
                    expected = truth(r[4]) if callable(truth) else truth
                    if expected and r[3] is not None:
                        per_round.append((accuracy(r[3], expected), expected))
                if per_round:
                    names = sorted(per_round[0][1], key=lambda n: -per_round[0][1][n])
                    parts = []
                    for fn in names:
                        if per_round[0][1][fn] < 5.0:
                            continue
                        measured = statistics.median(e[fn] + t[fn] for e, t in per_round)
                        parts.append("%s %.1f (%.1f)" % (fn.split("_")[-1], measured,
                                                         statistics.median(t[fn] for _, t in per_round)))
                    share_text = ", ".join(parts)
                    worst = "%.1f" % statistics.median(max(abs(v) for v in e.values()) for e, _ in per_round)
            lines.append(row % ("", name, rate, "%+.1f%% ±%.1f" % wall, "%+.1f%% ±%.1f" % cpu, prog, per_run,
                                "%+.1f%% ±%.1f" % cpu_beyond, share_text, worst))

    print("\n".join(lines))
    if not args.no_answer and "zor" in args.profilers.split(","):
        zor_answer, perf_answer = time_to_answer(tools, 1000, workdir, max(1, min(3, args.rounds)))
        print("\ntime to answer (%s, 1000 Hz, median): zor profile %.2f s, perf record + perf report "
              "--sort sym,srcline %.2f s (%.0fx)" % (os.path.basename(tools.python), zor_answer, perf_answer,
                                                      perf_answer / zor_answer if zor_answer > 0 else 0))
    print("\nper run: wall/CPU seconds of the command on a run that does next to nothing, less the native run's; "
          "CPU beyond: the command's CPU time less that, against the native run")
    print("\nmachine: %s, %d cores; %d rounds; spread is max - min of the rounds, in points" %
          (cpu_model(), os.cpu_count(), args.rounds))
    shutil.rmtree(workdir, ignore_errors=True)


def cpu_model():
    try:
        with open("/proc/cpuinfo") as info:
            for line in info:
                if line.startswith("model name"):
                    return line.split(":", 1)[1].strip()
    except OSError:
        pass
    return "unknown CPU"


if __name__ == "__main__":
    main()
