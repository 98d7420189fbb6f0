#!/usr/bin/env python3
"""A crowd of clients following one server: N `ctxsync sync` processes keep their folders in step
with a server on a private mosquitto (127.0.0.1 only); once all of them are in step, 5 new
backgrounds of 1 MiB are pushed by one more client. Measured, for each N:

  - the time from the start of the push until every follower's folder holds the server's tree
    (same files, same MD5s, hence the server's context hash; confirmed at the end with
    `ctxsync status`), against (a) the same time with one follower alone and (b) the ideal of
    the ten-sender rule, ceil(N / 10) x (a);
  - the server's CPU time per chunk sent (chunks counted in its log, "Sending file ..."), with the
    chunk cache on and, for N = 10, off (`--chunk-cache-mb 0`); the CPU the server spends taking
    in the push itself, measured with no follower, is taken off;
  - the peak resident memory (VmHWM, reset before the push) of the server and of the broker;
  - the followers that ended in error: exited before they were stopped, never in step, or not in
    step by `ctxsync status` at the end (goal 0), and the retries they reported.

Every scenario starts a fresh broker, server and context root, so the cache starts empty. The
images are valid 640 x 284 PNGs padded with random bytes to exactly 1048576 bytes (the largest
background the server keeps): three chunks each, 15 per follower.

  crowd_bench.py --build-dir build/release [--clients 10,30,100] [--no-cache-off]
                 [--follower sync|pull-loop] [--json FILE] [--markdown FILE]

--follower pull-loop replaces each `ctxsync sync` with a loop of `ctxsync pull` (to try the harness
with a client that has no sync command). Run through bench/run, which builds the programs first.
"""
import argparse
import hashlib
import json
import math
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import system_bench as sb  # noqa: E402  (shared process and image helpers)

IMAGE_SIZE = 1048576
NEW_IMAGES = 5
CHUNKS_PER_IMAGE = math.ceil(IMAGE_SIZE / sb.CHUNK)
# What is in the root before the push: two small backgrounds every follower fetches first.
INITIAL_IMAGES = 2

log = sb.log


def md5_file(path):
    digest = hashlib.md5()
    with open(path, "rb") as f:
        for block in iter(lambda: f.read(1 << 20), b""):
            digest.update(block)
    return digest.hexdigest()


class folder_t:
    """One follower's folder, compared with the server's files without hashing a file twice."""

    def __init__(self, path):
        self.path = path
        self.hashes = {}  # rel -> (stat key, md5)

    def matches(self, expected):
        """True when the folder holds exactly the files of `expected` (rel -> md5)."""
        found = {}
        for base, dirs, files in os.walk(self.path):
            dirs[:] = [d for d in dirs if not d.startswith(".")]
            for name in files:
                if name.startswith("."):
                    continue
                full = os.path.join(base, name)
                found[os.path.relpath(full, self.path)] = full
        if set(found) != set(expected):
            return False
        for rel, full in found.items():
            try:
                st = os.stat(full)
            except OSError:
                return False
            key = (st.st_ino, st.st_size, st.st_mtime_ns)
            known = self.hashes.get(rel)
            if known is None or known[0] != key:
                known = (key, md5_file(full))
                self.hashes[rel] = known
            if known[1] != expected[rel]:
                return False
        return True


class follower_t:
    def __init__(self, server, index, work, mode):
        self.index = index
        self.client_id = f"crowd-{index}"
        self.dir = os.path.join(work, "followers", f"f{index:03d}")
        shutil.rmtree(self.dir, ignore_errors=True)
        os.makedirs(self.dir)
        self.folder = folder_t(self.dir)
        self.out_path = os.path.join(work, "followers", f"f{index:03d}.out")
        self.out = open(self.out_path, "wb")
        if mode == "sync":
            args = sb.ctxsync_args(server, ["sync", self.dir], self.client_id, timeout=60)
        else:
            pull = " ".join(sb.ctxsync_args(server, ["pull", self.dir], self.client_id, 60))
            args = ["sh", "-c", f"trap 'exit 0' TERM INT; while :; do {pull}; sleep 0.3; done"]
        self.process = subprocess.Popen(args, stdout=self.out, stderr=subprocess.STDOUT)
        self.in_step_at = None
        self.exit_code = None

    def poll(self):
        if self.exit_code is None:
            self.exit_code = self.process.poll()
        return self.exit_code

    def stop(self):
        """SIGTERM, then the exit code (None when it had to be killed)."""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        try:
            code = self.process.wait(20)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            code = None
        self.out.close()
        return code

    def events(self):
        """Counts of the JSON events it printed, by their "event" (or "type") value."""
        counts = {}
        try:
            with open(self.out_path, "rb") as f:
                for raw in f:
                    try:
                        doc = json.loads(raw)
                    except ValueError:
                        continue
                    if isinstance(doc, dict):
                        kind = str(doc.get("event", doc.get("type", "?")))
                        counts[kind] = counts.get(kind, 0) + 1
        except OSError:
            pass
        return counts


def server_files(server):
    rc, out, _ = sb.ctxsync_run(server, ["list"], "crowd-list", timeout=30)
    if rc != 0:
        raise RuntimeError(f"ctxsync list failed ({rc}): {out[:300]}")
    doc = json.loads(out)
    return doc["files"], doc["context_hash"]


def log_lines(path, needle):
    with open(path, "rb") as f:
        return sum(1 for line in f if needle in line)


def check_status(server, followers):
    """`ctxsync status` for every follower, ten at a time: the ids of those not in step."""
    bad = []
    lock = threading.Lock()

    def check(group):
        for f in group:
            rc, out, _ = sb.ctxsync_run(server, ["status", f.dir], f"crowd-status-{f.index}", 30)
            try:
                doc = json.loads(out)
                ok = rc == 0 and doc["in_step"] and doc["local_hash"] == doc["server_hash"]
            except (ValueError, KeyError, TypeError):
                ok = False
            if not ok:
                with lock:
                    bad.append(f.client_id)

    groups = [followers[i::10] for i in range(10)]
    threads = [threading.Thread(target=check, args=(g,)) for g in groups if g]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    return sorted(bad)


def run_scenario(build, work, images, clients, cache_mb, mode, deadline_s):
    """One fresh broker, server and root; `clients` followers; the push of `images`."""
    name = f"n{clients}_cache{cache_mb}"
    base = os.path.join(work, name)
    shutil.rmtree(base, ignore_errors=True)
    os.makedirs(base)
    root = os.path.join(base, "root") + "/"
    os.makedirs(os.path.join(root, "background"))
    for i in range(INITIAL_IMAGES):
        with open(os.path.join(root, "background", f"initial_{i}.png"), "wb") as f:
            f.write(sb.background_png(500 + i))

    broker = sb.broker_t(os.path.join(base, "broker"))
    server = None
    followers = []
    result = {"clients": clients, "cache_mb": cache_mb, "mode": mode}
    try:
        sb.server_t.extra = ["--chunk-cache-mb", str(cache_mb)]
        server = sb.server_t(os.path.join(build, "server", "host", "context_sync_server"),
                             os.path.join(build, "client", "ctxsync"), base, root, broker.port)
        before, _ = server_files(server)

        log(f"  {name}: starting {clients} followers ...")
        for i in range(clients):
            followers.append(follower_t(server, i, base, mode))
        settle_deadline = time.monotonic() + max(120, clients * 3)
        waiting = list(followers)
        while waiting and time.monotonic() < settle_deadline:
            time.sleep(0.2)
            waiting = [f for f in waiting if f.poll() is None and not f.folder.matches(before)]
        result["not_in_step_before_push"] = [f.client_id for f in waiting]
        if waiting:
            log(f"  {len(waiting)} followers not in step before the push")

        sb.wait_quiet(server.pid, 30)
        result["peak_reset"] = sb.reset_peak(server.pid) and sb.reset_peak(broker.process.pid)
        server_log = os.path.join(base, "server.out")
        chunks_before = log_lines(server_log, b"Sending file ")
        cpu_before = sb.proc_cpu_seconds(server.pid)
        broker_cpu_before = sb.proc_cpu_seconds(broker.process.pid)

        log(f"  {name}: pushing {len(images)} images ...")
        start = time.monotonic()
        push = subprocess.Popen(
            sb.ctxsync_args(server, ["push"] + images + ["--to", "background/"], "crowd-pusher",
                            timeout=60), stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        expected = None
        pending = list(followers)
        push_out = b""
        end_deadline = start + deadline_s
        while time.monotonic() < end_deadline:
            if push is not None and push.poll() is not None:
                push_out = push.stdout.read()
                result["push_rc"] = push.returncode
                result["push_s"] = time.monotonic() - start
                push = None
                files, context_hash = server_files(server)
                expected = files
                result["context_hash"] = context_hash
                result["server_files"] = len(files)
                # Followers already in step before the list was read count from now on.
                for f in followers:
                    if f.folder.matches(expected) and f.in_step_at is None:
                        f.in_step_at = time.monotonic()
            if expected is not None:
                now = time.monotonic()
                for f in pending:
                    if f.in_step_at is None and f.folder.matches(expected):
                        f.in_step_at = now
                pending = [f for f in pending if f.in_step_at is None and f.poll() is None]
                if not pending:
                    break
            time.sleep(0.05)
        all_done = time.monotonic()
        if push is not None:
            push.kill()
            push.wait()
            result["push_rc"] = None
        result["push_out"] = push_out.decode(errors="replace").strip()[:300]
        in_step = [f.in_step_at for f in followers if f.in_step_at is not None]
        result["converged"] = len(in_step)
        result["all_s"] = (max(in_step) - start) if clients and len(in_step) == clients else None
        result["first_s"] = (min(in_step) - start) if in_step else None
        result["median_s"] = (sorted(in_step)[len(in_step) // 2] - start) if in_step else None
        result["span_s"] = all_done - start

        # The chunks the server sends after the last follower is in step belong to nobody.
        sb.wait_quiet(server.pid, 20)
        result["server_cpu_s"] = sb.proc_cpu_seconds(server.pid) - cpu_before
        result["broker_cpu_s"] = sb.proc_cpu_seconds(broker.process.pid) - broker_cpu_before
        result["chunks_sent"] = log_lines(server_log, b"Sending file ") - chunks_before
        result["server_peak_kb"] = sb.proc_status(server.pid, "VmHWM")
        result["broker_peak_kb"] = sb.proc_status(broker.process.pid, "VmHWM")
        result["cache_line"] = ""
        with open(server_log, "rb") as f:
            for line in f:
                if b"Chunk cache" in line:
                    result["cache_line"] = line.decode(errors="replace").strip()[-120:]
                    break

        exited = [f.client_id for f in followers if f.poll() is not None]
        result["exited_early"] = exited
        result["status_not_in_step"] = check_status(server, followers) if followers else []
        events = {}
        for f in followers:
            for kind, count in f.events().items():
                events[kind] = events.get(kind, 0) + count
        result["events"] = events
    finally:
        codes = [f.stop() for f in followers]
        result["stop_codes_nonzero"] = sum(1 for c in codes if c != 0)
        if server:
            server.stop()
        broker.stop()
        sb.server_t.extra = []
    errors = set(result.get("exited_early", [])) | set(result.get("status_not_in_step", []))
    errors |= {f.client_id for f in followers if f.in_step_at is None}
    result["errors"] = len(errors)
    return result


def fmt_s(value):
    return f"{value:.2f} s" if value is not None else "never"


def make_table(r):
    rows = []

    def row(name, value, baseline, ratio, goal):
        rows.append((name, value, baseline, f"{ratio:.2f}" if ratio is not None else "-", goal))

    alone = r["scenarios"].get("n1_cache32", {}).get("all_s")
    upload_cpu = r["scenarios"].get("n0_cache32", {}).get("server_cpu_s", 0.0)
    for key, s in r["scenarios"].items():
        n = s["clients"]
        if n < 2:
            continue
        cache = "cache on" if s["cache_mb"] else "cache off"
        if alone:
            ideal = math.ceil(n / 10) * alone
            ratio = s["all_s"] / ideal if s["all_s"] else None
            goal = "<= 1.5" if (n == 30 and s["cache_mb"]) else "-"
            row(f"8 {n} followers in step, {cache}", fmt_s(s["all_s"]),
                f"{fmt_s(ideal)} ideal (b) = {math.ceil(n / 10)} x (a)", ratio, goal)
            row(f"8 {n} followers in step, {cache}, vs one alone", fmt_s(s["all_s"]),
                f"{fmt_s(alone)} (a)", s["all_s"] / alone if s["all_s"] else None, "-")
    cpu = {}
    for key, s in r["scenarios"].items():
        if s["clients"] >= 1 and s.get("chunks_sent"):
            cpu[key] = max(s["server_cpu_s"] - upload_cpu, 0.0) / s["chunks_sent"]
    for n in sorted({s["clients"] for s in r["scenarios"].values()}):
        on, off = cpu.get(f"n{n}_cache32"), cpu.get(f"n{n}_cache0")
        if on is not None and off is not None:
            row(f"8 server CPU per chunk sent, {n} followers", f"{on * 1000:.1f} ms cache on",
                f"{off * 1000:.1f} ms cache off", on / off, "<= 0.3" if n == 10 else "-")
        elif on is not None:
            row(f"8 server CPU per chunk sent, {n} followers", f"{on * 1000:.1f} ms cache on",
                "-", None, "-")

    def mem(kb):
        return f"{kb / 1024:.1f} MiB" if kb else "-"

    for key, s in r["scenarios"].items():
        if s["clients"] < 1:
            continue
        cache = "on" if s["cache_mb"] else "off"
        row(f"8 peak RSS, {s['clients']} followers, cache {cache}",
            f"server {mem(s['server_peak_kb'])}", f"broker {mem(s['broker_peak_kb'])}", None, "-")
        row(f"8 followers in error, {s['clients']}, cache {cache}", str(s["errors"]),
            f"{s['converged']} of {s['clients']} in step", None, "0")

    width = [max(len(str(x[i])) for x in rows + [("Measure", "Value", "Baseline", "Ratio",
                                                   "Goal")]) for i in range(5)]
    lines = ["| " + " | ".join(h.ljust(width[i]) for i, h in enumerate(
        ("Measure", "Value", "Baseline", "Ratio", "Goal"))) + " |",
        "|" + "|".join("-" * (w + 2) for w in width) + "|"]
    for x in rows:
        lines.append("| " + " | ".join(str(v).ljust(width[i]) for i, v in enumerate(x)) + " |")
    return "\n".join(lines)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--build-dir", required=True)
    parser.add_argument("--work-dir", default=os.path.join(os.environ.get(
        "CONTEXT_SYNC_BENCH_DIR", os.path.join(tempfile.gettempdir(), "context_sync_bench_system")),
        "crowd"))
    parser.add_argument("--clients", default="10,30,100",
                        help="follower counts, comma-separated (default 10,30,100)")
    parser.add_argument("--no-cache-off", action="store_true",
                        help="skip the cache-off run at N = 10")
    parser.add_argument("--follower", choices=("sync", "pull-loop"), default="sync")
    parser.add_argument("--deadline", type=float, default=600,
                        help="seconds a scenario may take after the push (default 600)")
    parser.add_argument("--broker-defaults", action="store_true",
                        help='the broker without "set_tcp_nodelay true"')
    parser.add_argument("--json", help="also write every figure to this file")
    parser.add_argument("--markdown", help="also write the table to this file")
    options = parser.parse_args()
    if not options.broker_defaults:
        sb.broker_t.extra_conf = "set_tcp_nodelay true\n"

    build = os.path.abspath(options.build_dir)
    work = os.path.abspath(options.work_dir)
    data = os.path.join(work, "data")
    os.makedirs(data, exist_ok=True)
    # New content per run of the script: the images are what the followers have never seen.
    stamp = int(time.time())
    images = []
    for i in range(NEW_IMAGES):
        path = os.path.join(data, f"crowd_{i}.png")
        if os.path.exists(path):
            os.remove(path)
        sb.padded_png(path, "random", (stamp * 10 + i) & 0x7FFFFFFF, IMAGE_SIZE)
        images.append(path)

    counts = [int(x) for x in options.clients.split(",") if x.strip()]
    plan = [(0, 32), (1, 32)]
    for n in counts:
        plan.append((n, 32))
        if n == 10 and not options.no_cache_off:
            plan.append((n, 0))
    results = {"load_before": sb.load_average(), "scenarios": {}, "follower": options.follower}
    started = time.monotonic()
    for clients, cache_mb in plan:
        log(f"crowd: {clients} followers, cache {cache_mb} MiB (load {sb.load_average()}) ...")
        s = run_scenario(build, work, images, clients, cache_mb, options.follower,
                         options.deadline)
        results["scenarios"][f"n{clients}_cache{cache_mb}"] = s
        log("  " + json.dumps({k: v for k, v in s.items() if k not in ("push_out",)}))
    results["load_after"] = sb.load_average()
    results["elapsed_s"] = time.monotonic() - started
    table = make_table(results)
    print(table)
    print(f"\nfollowers: ctxsync {options.follower}; load average before {results['load_before']},"
          f" after {results['load_after']}; {results['elapsed_s']:.0f} s")
    if options.json:
        with open(options.json, "w") as f:
            json.dump(results, f, indent=1, default=str)
    if options.markdown:
        with open(options.markdown, "w") as f:
            f.write(table + "\n")
    failed = [k for k, s in results["scenarios"].items() if s["clients"] and s["errors"]]
    if failed:
        log(f"scenarios with followers in error: {', '.join(failed)}")
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
