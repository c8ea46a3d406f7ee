#!/usr/bin/python3
"""Applies each fault of faults.py in turn, rebuilds only what it needs, runs the tests named
for it and tells whether they caught it; see README.md. The source file is always put back and
checked clean with git diff."""
import argparse, os, shlex, signal, subprocess, sys, time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from faults import FAULTS  # noqa: E402

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


def run(cmd, env=None, log=None):
    with open(log or os.devnull, "a") as out:
        out.write("\n$ " + " ".join(cmd) + "\n")
        out.flush()
        return subprocess.run(cmd, cwd=ROOT, env=env, stdout=out, stderr=subprocess.STDOUT).returncode


def clean(path):
    return run(["git", "diff", "--quiet", "HEAD", "--", path]) == 0


def build(args, targets):
    args.built.update(targets)
    return run(["cmake", "--build", args.build_dir, "-j2", "--target", *targets], log=args.log) == 0


def unit_verdict(args, fault):
    if not fault["targets"] or not build(args, fault["targets"]):
        return "BUILD FAILED" if fault["targets"] else "-"
    listed = subprocess.run(["ctest", "--test-dir", args.build_dir, "-N", "-R", fault["unit"]],
                            cwd=ROOT, capture_output=True, text=True).stdout
    if "Total Tests: 0" in listed or "Total Tests:" not in listed:
        return "NO TESTS"
    code = run(["ctest", "--test-dir", args.build_dir, "-R", fault["unit"], "-j2",
                "--stop-on-failure"], log=args.log)
    return "caught" if code else "MISSED"


def e2e_verdict(args, fault):
    if not fault["e2e"] or not build(args, ["nightjard", "nightjarctl"]):
        return "BUILD FAILED" if fault["e2e"] else "-"
    env = dict(os.environ, NIGHTJAR_BUILD_DIR=os.path.abspath(args.build_dir))
    code = run(["/usr/bin/python3", "-m", "pytest", "-q", "-x", "-p", "no:cacheprovider",
                *shlex.split(fault["e2e"])], env=env, log=args.log)
    return {0: "MISSED", 1: "caught", 5: "NO TESTS"}.get(code, "ERROR %d" % code)


def mutate(args, fault):
    path = os.path.join(ROOT, fault["path"])
    if not clean(fault["path"]):
        return "DIRTY FILE", "-"
    with open(path) as f:
        original = f.read()
    if original.count(fault["old"]) != 1:
        return "TEXT FOUND %dx" % original.count(fault["old"]), "-"
    args.built = set()
    interrupted = True
    try:
        with open(path, "w") as f:
            f.write(original.replace(fault["old"], fault["new"]))
        unit = unit_verdict(args, fault)
        wants_e2e = args.e2e == "all" or (args.e2e == "missed" and unit != "caught")
        verdicts = unit, e2e_verdict(args, fault) if wants_e2e else "-"
        interrupted = False
        return verdicts
    finally:
        with open(path, "w") as f:
            f.write(original)
        if not clean(fault["path"]):
            sys.exit("could not restore " + fault["path"])
        # No binary keeps the fault: a later row's pattern may run it.
        if not interrupted and args.built and not build(args, sorted(args.built)):
            sys.exit("the restored tree does not build; see " + args.log)


def check(args, chosen):
    """The chosen unit tests pass on the tree as it is, or no verdict means anything."""
    args.built = set()
    targets = sorted({t for fault in chosen for t in fault["targets"]})
    pattern = "|".join(fault["unit"] for fault in chosen if fault["unit"])
    if targets and (not build(args, targets) or
                    run(["ctest", "--test-dir", args.build_dir, "-R", pattern, "-j2"],
                        log=args.log)):
        sys.exit("the unit tests fail without any fault; see " + args.log)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("names", nargs="*", help="faults to run (default: all)")
    parser.add_argument("--build-dir", default=os.path.join(ROOT, "build/release"))
    parser.add_argument("--e2e", choices=["none", "missed", "all"], default="none",
                        help="run the e2e tests of no fault, of those unit tests missed, of all")
    parser.add_argument("--log", default="/tmp/nightjar-mutation.log")
    parser.add_argument("--no-check", action="store_true",
                        help="skip the run of the unit tests without a fault")
    parser.add_argument("--list", action="store_true", help="list the faults and stop")
    args = parser.parse_args()
    if args.list:
        return print("\n".join(fault["name"] for fault in FAULTS))
    unknown = set(args.names) - {fault["name"] for fault in FAULTS}
    if unknown:
        sys.exit("unknown fault: " + ", ".join(sorted(unknown)))
    open(args.log, "w").close()
    chosen = [fault for fault in FAULTS if not args.names or fault["name"] in args.names]
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, signal.default_int_handler)
    if not args.no_check:
        check(args, chosen)
    print("%-38s %-14s %-14s %s" % ("fault", "unit", "e2e", "seconds"), flush=True)
    lost = 0
    for fault in chosen:
        start = time.monotonic()
        unit, e2e = mutate(args, fault)
        lost += "caught" not in (unit, e2e)
        print("%-38s %-14s %-14s %4.0f" % (fault["name"], unit, e2e, time.monotonic() - start),
              flush=True)
    print("%d of %d not caught; log: %s" % (lost, len(chosen), args.log))
    return 1 if lost else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit("interrupted; the source was restored")
