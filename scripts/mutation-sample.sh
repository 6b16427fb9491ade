#!/usr/bin/env bash
# Measures how many faults the test suite catches: makes N single-line mutations in src/lib,
# chosen from a fixed seed, builds each one and runs the tests it can affect.
#
#   scripts/mutation-sample.sh [N=60] [SEED=9]
#
# Environment: REV (commit to measure, default HEAD), WORK (scratch folder, default a new one
# under /tmp), JOBS (build jobs, default 2), TEST_TIMEOUT (cap per test executable in seconds,
# default 300), BUILD_TYPE (default Debug: the quickest to compile), KEEP=1 keeps the scratch
# folder. With WORK naming a folder of an earlier run, only what changed since is rebuilt.
#
# Kinds of mutation: flip a comparison, negate an if/while condition, drop a statement that
# writes a file or emits a signal, change an integer constant by one. The checkout is never
# touched: REV is exported to the scratch folder and built there (sharing the compiler cache,
# so only the mutated file compiles). A mutant is killed when it does not build, or when an
# affected test fails or runs out of time; tests already failing unmutated are left out.
# Prints one line per mutant and then `BENCH mutants_killed K/N`.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
export MUT_N=${1:-60} MUT_SEED=${2:-9}
export MUT_REV=${REV:-HEAD} MUT_JOBS=${JOBS:-2} MUT_TIMEOUT=${TEST_TIMEOUT:-300}
export MUT_BUILD_TYPE=${BUILD_TYPE:-Debug}
export MUT_WORK=${WORK:-$(mktemp -d /tmp/hangar-mutants.XXXXXX)}
export MUT_HERE=$here
# The scratch tree has the checkout's layout (build folder inside), so with paths relative to
# it and without the working folder in the hash, its objects are cache hits for a checkout
# built the same way (CCACHE_NOHASHDIR=1, same build type) and the other way round.
export CCACHE_BASEDIR=$MUT_WORK/src CCACHE_NOHASHDIR=1
exec nice -n 10 python3 - <<'PY'
import json, os, random, re, shutil, subprocess, sys, time

n, seed = int(os.environ["MUT_N"]), int(os.environ["MUT_SEED"])
work, jobs, cap = os.environ["MUT_WORK"], os.environ["MUT_JOBS"], int(os.environ["MUT_TIMEOUT"])
src, build = os.path.join(work, "src"), os.path.join(work, "src", "build")

def sh(cmd, **kw):
    return subprocess.run(cmd, shell=True, text=True, capture_output=True, **kw)

def log(*a):
    print(*a, flush=True)

os.makedirs(src, exist_ok=True)
# Export REV over the scratch tree: a re-used tree gets the tests of the new revision, and files
# that did not change keep their time stamps, so only the changes rebuild.
export = os.path.join(work, "export")
shutil.rmtree(export, ignore_errors=True)
os.makedirs(export)
r = sh(f"git -C {os.environ['MUT_HERE']} archive {os.environ['MUT_REV']} | tar -x -C {export}")
if r.returncode: sys.exit(r.stderr)
for root, dirs, names in os.walk(src):
    if root == src and "build" in dirs:
        dirs.remove("build")
    for name in names:
        if not os.path.exists(os.path.join(export, os.path.relpath(root, src), name)):
            os.remove(os.path.join(root, name))
for root, _, names in os.walk(export):
    os.makedirs(os.path.join(src, os.path.relpath(root, export)), exist_ok=True)
    for name in names:
        old, new = os.path.join(root, name), os.path.join(src, os.path.relpath(root, export), name)
        if not os.path.exists(new) or open(old, "rb").read() != open(new, "rb").read():
            shutil.copy2(old, new)
# Every mutant relinks the affected executables: lld, when there is one, does that in a fraction
# of the time. Linker flags do not touch the compiler cache.
linker = "-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld" if shutil.which("ld.lld") else ""
r = sh(f"cmake -S {src} -B {build} -G Ninja -DCMAKE_BUILD_TYPE={os.environ['MUT_BUILD_TYPE']}"
       f" -DHANGAR_BUILD_BENCH=OFF {linker}")
if r.returncode: sys.exit(r.stdout + r.stderr)
log(f"scratch tree {src}; building it unmutated")
r = sh(f"ninja -C {build} -j{jobs}")
if r.returncode: sys.exit(r.stdout[-3000:])

tests = json.loads(sh(f"ctest --test-dir {build} --show-only=json-v1").stdout)["tests"]
suite = {}
for t in tests:
    env = dict(os.environ)
    for p in t.get("properties", []):
        if p["name"] == "ENVIRONMENT":
            env.update(kv.split("=", 1) for kv in p["value"])
    exe = t["command"][0]
    # Every source the executable is built from, tools it runs (add_dependencies) included.
    inputs = sh(f"ninja -C {build} -t inputs {os.path.relpath(exe, build)}").stdout.split()
    srcs = {os.path.normpath(os.path.join(build, i)) for i in inputs if i.endswith(".cpp")}
    cwd = next((p["value"] for p in t.get("properties", []) if p["name"] == "WORKING_DIRECTORY"),
               os.path.dirname(exe))
    suite[t["name"]] = {"cmd": t["command"], "env": env, "cwd": cwd, "srcs": srcs,
                        "exe": os.path.relpath(exe, build)}

def run_test(name, timeout):
    t = suite[name]
    start = time.time()
    try:
        r = subprocess.run(t["cmd"], env=t["env"], cwd=t["cwd"], capture_output=True, timeout=timeout)
        ok = r.returncode == 0
    except subprocess.TimeoutExpired:
        ok = False
    return ok, time.time() - start

log("running the suite unmutated")
for name in list(suite):
    ok, secs = run_test(name, cap)
    suite[name]["secs"] = secs
    if not ok:
        log(f"  {name} fails unmutated: left out")
        del suite[name]

# --- candidate mutations ---------------------------------------------------------------------
covered = set().union(*(t["srcs"] for t in suite.values()))
files = sorted(f for f in covered if f.startswith(os.path.join(src, "src", "lib") + os.sep))
STRING = re.compile(r'"(?:\\.|[^"\\])*"|\'(?:\\.|[^\'\\])*\'')
FLIPS = {"==": "!=", "!=": "==", "<=": ">", ">=": "<", "<": ">=", ">": "<="}
COMPARE = re.compile(r"(?<=\s)(==|!=|<=|>=|<|>)(?=\s)")
SIDE_EFFECT = re.compile(r"\bemit\b|\.write\(|\.commit\(|\brename\(|\.remove\(|removeRecursively\(|"
                         r"\bmkpath\(|\.flush\(|setPermissions\(|\.resize\(|writeFile|writeAtomically|saveTo")
NUMBER = re.compile(r"(?<![\w.])(\d+)(?![\w.'])")

def blank_strings(line):
    return STRING.sub(lambda m: " " * len(m.group()), line)

def matching_paren(text, open_at):
    depth = 0
    for i in range(open_at, len(text)):
        depth += {"(": 1, ")": -1}.get(text[i], 0)
        if depth == 0:
            return i
    return -1

def candidates(path):
    lines = open(path, encoding="utf-8").read().split("\n")
    previous = ""
    for no, line in enumerate(lines):
        code = blank_strings(line)
        cut = code.find("//")
        if cut >= 0:
            code = code[:cut]
        stripped = code.strip()
        if not stripped or stripped.startswith(("#", "*", "/*", "static_assert", "Q_")):
            continue
        for m in COMPARE.finditer(code):
            yield no, "flip", line[:m.start()] + FLIPS[m.group()] + line[m.end():]
        for m in re.finditer(r"\b(if|while) \(", code):
            close = matching_paren(code, m.end() - 1)
            if close > 0:
                inner = line[m.end():close]
                yield no, "negate", line[:m.end()] + "!(" + inner + ")" + line[close:]
        if (SIDE_EFFECT.search(code) and stripped.endswith(";") and code.count("(") == code.count(")")
                and not re.search(r"^(return|auto|const|bool|QString|QByteArray|qint64|int)\b|[^=!<>]=[^=]", stripped)
                and previous.endswith((";", "{", "}", ")", ":"))):
            indent = line[:len(line) - len(line.lstrip())]
            yield no, "drop", indent + ";"
        for m in NUMBER.finditer(code):
            digits = m.group()
            bumped = "0%o" % (int(digits, 8) + 1) if digits.startswith("0") and len(digits) > 1 else str(int(digits) + 1)
            yield no, "constant", line[:m.start()] + bumped + line[m.end():]
        previous = stripped

pool = [(f, no, kind, new) for f in files for no, kind, new in candidates(f)]
rng = random.Random(seed)
chosen = rng.sample(pool, min(n, len(pool)))
log(f"{len(pool)} candidate mutations in {len(files)} files reached by tests; trying {len(chosen)}")

killed = 0
for index, (path, no, kind, new) in enumerate(chosen, 1):
    original = open(path, encoding="utf-8").read()
    lines = original.split("\n")
    old = lines[no]
    lines[no] = new
    affected = sorted((name for name, t in suite.items() if path in t["srcs"]),
                      key=lambda name: suite[name]["secs"])
    where = f"{os.path.relpath(path, src)}:{no + 1}"
    verdict = "survived"
    try:
        with open(path, "w", encoding="utf-8") as f:
            f.write("\n".join(lines))
        targets = " ".join(suite[name]["exe"] for name in affected)
        r = sh(f"ninja -C {build} -j{jobs} {targets}")
        if r.returncode:
            verdict = "killed (does not build)"
        else:
            for name in affected:
                ok, _ = run_test(name, min(cap, 3 * suite[name]["secs"] + 30))
                if not ok:
                    verdict = f"killed by {name}"
                    break
    finally:
        with open(path, "w", encoding="utf-8") as f:
            f.write(original)
    killed += verdict.startswith("killed")
    log(f"[{index}/{len(chosen)}] {kind:8} {where}: {old.strip()[:60]!r} -> {new.strip()[:60]!r}: {verdict}")

# Leave the scratch tree built unmutated again.
sh(f"ninja -C {build} -j{jobs}")
if os.environ.get("KEEP") != "1" and not os.environ.get("WORK"):
    shutil.rmtree(work, ignore_errors=True)
print(f"BENCH mutants_killed {killed}/{len(chosen)}", flush=True)
PY
