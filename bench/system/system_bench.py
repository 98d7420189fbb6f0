#!/usr/bin/env python3
"""The whole system under load: a private mosquitto on a free loopback port, the server program on
its own context root, and ctxsync clients, all on this machine. Prints one table in which every
figure stands next to a baseline measured in the same run, with the ratio and the goal.

  1 download of 50 MB with `ctxsync pull`, random and text content, against the protocol ceiling:
    512000 bytes over the per-chunk cost of level-9 compression + MD5 + Base64 plus the pacing
    the server applies. The root keeps only background images of at most 1048576 bytes, so the
    50 MB are 49 valid 640 x 284 PNGs of 1 024 000 bytes (two whole chunks) whose bulk is an
    ancillary chunk of random bytes or of text; the ceiling counts the intervals the sender
    waits per file (one before every chunk, one before a file's first chunk, one between files);
  2 upload of one 50 MB file with `ctxsync push --force` into background/ (the server takes it in
    whole, then removes it as too large for a background, and push reports that), against
    512000 / (chunk encode + chunk decode), the work of both ends of a stop-and-wait chunk, and
    against 512000 / chunk encode, the client's own work, which bounds an upload whose client
    prepares the next chunk while the current one is acknowledged;
  3 ten clients pulling the 50 MB at once: aggregate throughput against the ceiling of ten paced
    senders, or of the machine's cores doing encode + decode, whichever is lower; and fairness
    (slowest client over fastest);
  4 first scan of 5 000 background images against md5sum over the same files, and
  5 the rescan after one of them changes, with the bytes it hashed (context_monitor_bench);
  6 the server's peak resident memory (VmHWM, reset through /proc/PID/clear_refs before each
    scenario) with 1, 2, 4 and 10 downloads, and its growth during the 50 MB upload against the
    file's size;
  7 latency from a file written into background/ to the ctx_list broadcast reaching
    `ctxsync watch`, against the 1000 ms debounce;
  8 the JavaScript client (client/js, in Node) pulling the random set over TCP and through
    websockify, against `ctxsync pull` of the same set in the same run (needs node and
    scripts/setup-js; left out otherwise); and the web page (web/, in headless chromium, served
    and bridged by websockify) pulling the whole tree, both sets, into an empty browser, against
    `ctxsync pull` of both sets (needs chromium and the page built by scripts/setup-js).

Pull times have the fixed part of the command taken off: a pull with nothing to fetch. Push times
are the chunk traffic that `ctxsync --json push` reports as "transfer_ms" (first chunk read to
last acknowledgement), without connecting and the settle and list that confirm the verdict.
Generated data lives in --work-dir (default $CONTEXT_SYNC_BENCH_DIR or the temporary folder +
/context_sync_bench_system) and is reused by later runs. Everything listens on 127.0.0.1 only.
Run through bench/run, which builds the programs first.
"""
import argparse
import json
import os
import random
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import zlib

CHUNK = 512000
MB = 1000 * 1000
# Images of two whole chunks each: 49 of them make the 50 MB of a download.
CHUNKS_PER_IMAGE = 2
IMAGE_SIZE = CHUNKS_PER_IMAGE * CHUNK
KINDS = ("random", "text")
TEXT_LINE = "The context root holds the backgrounds that every client shows, 640 x 284 pixels.\n"


def log(message):
    print(message, file=sys.stderr, flush=True)


# --------------------------------------------------------------------------------------------
# data


def make_random_file(path, size):
    if os.path.exists(path) and os.path.getsize(path) == size:
        return
    generator = random.Random(42)
    with open(path, "wb") as out:
        left = size
        while left > 0:
            n = min(left, 1 << 20)
            out.write(generator.randbytes(n))
            left -= n


def make_text_file(path, size):
    if os.path.exists(path) and os.path.getsize(path) == size:
        return
    with open(path, "wb") as out:
        written = 0
        counter = 0
        while written < size:
            block = "".join(f"{counter + i}: {TEXT_LINE}" for i in range(10000)).encode()
            counter += 10000
            block = block[: size - written]
            out.write(block)
            written += len(block)


def png_chunk(kind, data):
    body = kind + data
    return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body))


PNG_SIGNATURE = b"\x89PNG\r\n\x1a\n"
PNG_HEADER = png_chunk(b"IHDR", struct.pack(">IIBBBBB", 640, 284, 8, 2, 0, 0, 0))


def background_png(seed):
    """A valid 640 x 284 RGB PNG whose pixels depend on `seed` (well under 1 MiB)."""
    generator = random.Random(seed)
    rows = []
    base = generator.randrange(256)
    for y in range(284):
        noise = generator.randbytes(640 * 3 // 8) * 8
        rows.append(b"\x00" + bytes((b + base + y) & 0xFF for b in noise))
    return (PNG_SIGNATURE + PNG_HEADER + png_chunk(b"IDAT", zlib.compress(b"".join(rows), 6))
            + png_chunk(b"IEND", b""))


def text_bytes(size, first_line):
    lines = []
    total = 0
    counter = first_line
    while total < size:
        line = f"{counter}: {TEXT_LINE}"
        lines.append(line)
        total += len(line)
        counter += 1
    return "".join(lines).encode()[:size]


def padded_png(path, kind, seed, size):
    """A valid 640 x 284 PNG of exactly `size` bytes: one plain-coloured image whose bulk is an
    ancillary chunk of random bytes ("rnDm", skipped by decoders) or of text ("tEXt"). The server
    keeps background images of at most 1048576 bytes, so a large download is a set of these."""
    if os.path.exists(path) and os.path.getsize(path) == size:
        return
    row = b"\x00" + bytes([seed & 0xFF, 80, 160]) * 640
    image = png_chunk(b"IDAT", zlib.compress(row * 284, 9))
    fixed = len(PNG_SIGNATURE) + len(PNG_HEADER) + len(image) + 12 + 12
    n = size - fixed
    if kind == "random":
        extra = png_chunk(b"rnDm", random.Random(seed).randbytes(n))
    else:
        extra = png_chunk(b"tEXt", b"Comment\x00" + text_bytes(n - 8, seed * 20000))
    with open(path, "wb") as out:
        out.write(PNG_SIGNATURE + PNG_HEADER + extra + image + png_chunk(b"IEND", b""))


# --------------------------------------------------------------------------------------------
# processes


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def proc_status(pid, key):
    """A field of /proc/PID/status in kB, or None."""
    try:
        with open(f"/proc/{pid}/status") as f:
            for line in f:
                if line.startswith(key + ":"):
                    return int(line.split()[1])
    except OSError:
        pass
    return None


def proc_cpu_seconds(pid):
    try:
        with open(f"/proc/{pid}/stat") as f:
            fields = f.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
    except OSError:
        return None


def reset_peak(pid):
    """Resets VmHWM to the current VmRSS (Linux >= 4.0); False when the kernel refuses."""
    try:
        with open(f"/proc/{pid}/clear_refs", "w") as f:
            f.write("5")
    except OSError:
        return False
    hwm, rss = proc_status(pid, "VmHWM"), proc_status(pid, "VmRSS")
    return hwm is not None and rss is not None and hwm <= rss * 1.05 + 256


class broker_t:
    # More lines for mosquitto.conf: "set_tcp_nodelay true" as docs/deployment.md prescribes, unless
    # bench/run --broker-defaults measures the broker as it comes.
    extra_conf = ""

    def __init__(self, work):
        self.port = free_port()
        os.makedirs(work, exist_ok=True)
        conf = os.path.join(work, "mosquitto.conf")
        with open(conf, "w") as f:
            f.write(f"listener {self.port} 127.0.0.1\nallow_anonymous true\n"
                    "log_dest stderr\nuser root\npersistence false\n" + self.extra_conf)
        self.log = open(os.path.join(work, "mosquitto.log"), "wb")
        self.process = subprocess.Popen(["mosquitto", "-c", conf], stderr=self.log,
                                        stdout=subprocess.DEVNULL)
        deadline = time.monotonic() + 10
        while time.monotonic() < deadline:
            try:
                socket.create_connection(("127.0.0.1", self.port), timeout=0.2).close()
                return
            except OSError:
                time.sleep(0.05)
        raise RuntimeError("mosquitto did not start")

    def stop(self):
        self.process.terminate()
        self.process.wait(10)
        self.log.close()


class server_t:
    # More arguments for the server program (for example a log level while profiling).
    extra = []

    def __init__(self, program, ctxsync, work, root, broker_port):
        self.ctxsync = ctxsync
        self.port = broker_port
        state = os.path.join(work, "state")
        os.makedirs(state, exist_ok=True)
        settings = os.path.join(work, "server-settings.json")
        with open(settings, "w") as f:
            json.dump({"static": {"orvane": {
                "paths": {"client_communication": state, "logs": os.path.join(state, "logs")},
                "comunication": {"mqtt": {"host": "127.0.0.1", "port": broker_port,
                                          "client_id": "context-sync-server"}}}}}, f)
        self.out = open(os.path.join(work, "server.out"), "wb")
        self.process = subprocess.Popen(
            [program, "--root", root, "--config", settings, "--state-dir", state,
             "--broker", f"127.0.0.1:{broker_port}"] + self.extra,
            stdout=self.out, stderr=subprocess.STDOUT)
        self.pid = self.process.pid
        deadline = time.monotonic() + 60
        while time.monotonic() < deadline:
            if self.process.poll() is not None:
                raise RuntimeError(f"the server exited with {self.process.returncode}")
            if ctxsync_run(self, ["list"], "bench-ready", timeout=3)[0] == 0:
                return
            time.sleep(0.2)
        raise RuntimeError("the server did not answer a list request within 60 s")

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        try:
            self.process.wait(30)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.out.close()


def ctxsync_args(server, args, client_id, timeout=60):
    return [server.ctxsync, "--broker", f"127.0.0.1:{server.port}", "--client-id", client_id,
            "--timeout", str(timeout), "--json"] + args


def ctxsync_run(server, args, client_id, timeout=60):
    start = time.monotonic()
    done = subprocess.run(ctxsync_args(server, args, client_id, timeout), capture_output=True,
                          timeout=timeout * 20)
    return done.returncode, done.stdout.decode(errors="replace"), time.monotonic() - start


JS_DIR = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "client", "js")
JS_CLI = os.path.join(JS_DIR, "examples", "ctxsync.mjs")
WEB_DIR = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "web")


def page_available():
    """The built page, its packages and chromium: what the browser row needs."""
    return (shutil.which("node") is not None and os.path.exists("/usr/bin/chromium")
            and os.path.isfile(os.path.join(WEB_DIR, "dist", "index.html"))
            and os.path.isdir(os.path.join(WEB_DIR, "node_modules", "puppeteer-core")))


def js_available():
    return shutil.which("node") is not None and os.path.isdir(
        os.path.join(JS_DIR, "node_modules", "mqtt"))


def js_run(url, args, client_id, timeout=120):
    """The JavaScript client's command line (client/js/examples/ctxsync.mjs) in Node."""
    start = time.monotonic()
    done = subprocess.run(["node", JS_CLI, "--broker", url, "--client-id", client_id,
                           "--timeout", "60"] + args, capture_output=True, timeout=timeout * 20)
    return done.returncode, done.stdout.decode(errors="replace"), time.monotonic() - start


class websockify_t:
    """websockify in front of the broker's TCP listener, as a browser reaches it."""

    def __init__(self, work, broker_port, web=None):
        self.port = free_port()
        self.log = open(os.path.join(work, "websockify.log"), "wb")
        self.process = subprocess.Popen(
            ["websockify"] + (["--web", web] if web else [])
            + [f"127.0.0.1:{self.port}", f"127.0.0.1:{broker_port}"],
            stdout=self.log, stderr=subprocess.STDOUT)
        deadline = time.monotonic() + 10
        while time.monotonic() < deadline:
            try:
                socket.create_connection(("127.0.0.1", self.port), timeout=0.2).close()
                return
            except OSError:
                time.sleep(0.05)
        raise RuntimeError("websockify did not start")

    def stop(self):
        self.process.terminate()
        self.process.wait(10)
        self.log.close()


def run_parallel(server, jobs):
    """Starts every (args, client_id) at once; returns [(rc, start, end)] in the same order."""
    results = [None] * len(jobs)

    def wait_one(i, process, start):
        process.wait()
        results[i] = (process.returncode, start, time.monotonic())

    threads = []
    for i, (args, client_id) in enumerate(jobs):
        start = time.monotonic()
        process = subprocess.Popen(ctxsync_args(server, args, client_id), stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL)
        thread = threading.Thread(target=wait_one, args=(i, process, start))
        thread.start()
        threads.append(thread)
    for thread in threads:
        thread.join(1800)
    return results


# --------------------------------------------------------------------------------------------
# measurements


def wait_quiet(pid, timeout=15.0):
    """Waits until the process has used less than 10 ms of CPU in half a second (the work that a
    scenario leaves behind, such as the senders of ten pulls being stopped and the lists
    broadcast, must not count for the next one); gives up after `timeout` seconds."""
    deadline = time.monotonic() + timeout
    last = proc_cpu_seconds(pid)
    while time.monotonic() < deadline:
        time.sleep(0.5)
        now = proc_cpu_seconds(pid)
        if last is None or now is None or now - last < 0.01:
            return
        last = now


class peak_t:
    """The server's VmHWM over one scenario, with its CPU seconds, from a quiet server."""

    def __init__(self, server):
        self.server = server

    def __enter__(self):
        wait_quiet(self.server.pid)
        self.reset = reset_peak(self.server.pid)
        self.rest_kb = proc_status(self.server.pid, "VmRSS")
        self.cpu = proc_cpu_seconds(self.server.pid)
        return self

    def __exit__(self, *exc):
        self.peak_kb = proc_status(self.server.pid, "VmHWM")
        self.cpu = proc_cpu_seconds(self.server.pid) - self.cpu
        return False


def prepare_pull_dir(work, name, keep):
    """An empty destination that already holds `keep` (relative path -> source file)."""
    dest = os.path.join(work, name)
    shutil.rmtree(dest, ignore_errors=True)
    for rel, source in keep.items():
        os.makedirs(os.path.dirname(os.path.join(dest, rel)), exist_ok=True)
        os.link(source, os.path.join(dest, rel))
    os.makedirs(dest, exist_ok=True)
    return dest


def same_file(a, b):
    if os.path.getsize(a) != os.path.getsize(b):
        return False
    with open(a, "rb") as fa, open(b, "rb") as fb:
        while True:
            x, y = fa.read(1 << 20), fb.read(1 << 20)
            if x != y:
                return False
            if not x:
                return True


def measure_ceiling(build, files, quick):
    program = os.path.join(build, "bench", "system", "chunk_ceiling_bench")
    args = [program, "--benchmark_format=json",
            f"--benchmark_min_time={0.5 if quick else 2}"]
    args += [f"{label}={path}" for label, path in files.items()]
    out = subprocess.run(args, capture_output=True, check=True).stdout
    costs = {}
    for run in json.loads(out)["benchmarks"]:
        name = run["name"].split("/real_time")[0]
        costs[name] = run["real_time"] / 1000.0  # ms -> s
        costs["cpu " + name] = run["cpu_time"] / 1000.0
    return costs


def measure_monitor(build, work):
    program = os.path.join(build, "bench", "watcher", "context_monitor_bench")
    env = dict(os.environ, CONTEXT_SYNC_BENCH_DIR=os.path.join(work, "watcher"))
    out = subprocess.run([program, "--benchmark_format=json",
                          "--benchmark_filter=BM_InitialScanVsMd5sum|BM_RescanAfterOneChange"],
                         capture_output=True, check=True, env=env).stdout
    runs = {}
    for run in json.loads(out)["benchmarks"]:
        runs[run["name"].split("/")[0]] = run
    return runs


def measure_latency(server, root, rounds):
    watch = subprocess.Popen(ctxsync_args(server, ["watch"], "bench-watch"),
                             stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    lines = []
    reader_done = threading.Event()

    def reader():
        for raw in watch.stdout:
            lines.append((time.monotonic(), raw.decode(errors="replace")))
        reader_done.set()

    threading.Thread(target=reader, daemon=True).start()

    def wait_for(predicate, since, timeout):
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            for stamp, line in lines[since:]:
                if predicate(line):
                    return stamp
            time.sleep(0.002)
        return None

    latencies = []
    try:
        # The answer to watch's own list request says it is subscribed.
        if wait_for(lambda l: '"ctx_list"' in l, 0, 30) is None:
            raise RuntimeError("ctxsync watch got no list")
        for i in range(rounds):
            name = f"latency_{os.getpid()}_{i}.png"
            image = background_png(1000 + i)
            seen = len(lines)
            start = time.monotonic()
            with open(os.path.join(root, "background", name), "wb") as f:
                f.write(image)
            arrived = wait_for(lambda l: '"broadcast":true' in l and '"ctx_list"' in l
                               and name in l, seen, 30)
            if arrived is None:
                raise RuntimeError(f"no ctx_list broadcast named {name}")
            latencies.append(arrived - start)
            # Let the debounce window close before the next write.
            time.sleep(1.5)
    finally:
        watch.send_signal(signal.SIGINT)
        try:
            watch.wait(10)
        except subprocess.TimeoutExpired:
            watch.kill()
            watch.wait()
    return latencies


def load_average():
    with open("/proc/loadavg") as f:
        return " ".join(f.read().split()[:3])


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--build-dir", required=True)
    parser.add_argument("--work-dir", default=os.environ.get(
        "CONTEXT_SYNC_BENCH_DIR", os.path.join(tempfile.gettempdir(), "context_sync_bench_system")))
    parser.add_argument("--quick", action="store_true",
                        help="10 MB instead of 50 MB, fewer rounds: minutes instead of ten or so")
    parser.add_argument("--broker-defaults", action="store_true",
                        help="run the broker with its default settings (Nagle's algorithm on its "
                        'sockets) instead of the deployment\'s "set_tcp_nodelay true"')
    parser.add_argument("--broker-nodelay", action="store_true",
                        help="the default; kept for older command lines")
    parser.add_argument("--json", help="also write every figure to this file")
    parser.add_argument("--markdown", help="also write the table to this file")
    options = parser.parse_args()

    # The deployment guide and scripts/run-server give the broker "set_tcp_nodelay true"; the
    # default measures that. --broker-defaults shows what a broker left as it comes costs.
    if options.broker_defaults and options.broker_nodelay:
        parser.error("--broker-defaults and --broker-nodelay exclude each other")
    broker_setting = "default settings" if options.broker_defaults else "set_tcp_nodelay true"
    if not options.broker_defaults:
        broker_t.extra_conf = "set_tcp_nodelay true\n"
    build = os.path.abspath(options.build_dir)
    work = os.path.abspath(options.work_dir)
    images = 10 if options.quick else 49
    set_size = images * IMAGE_SIZE
    big_size = (10 if options.quick else 50) * MB
    ncpu = os.cpu_count() or 1
    data = os.path.join(work, "data")
    os.makedirs(data, exist_ok=True)
    load_before = load_average()
    started = time.monotonic()

    log(f"work folder {work}; {images} images of {IMAGE_SIZE} bytes per kind, "
        f"uploads of {big_size // MB} MB")
    big = {"random": os.path.join(data, f"random_{big_size}.bin"),
           "text": os.path.join(data, f"text_{big_size}.txt")}
    make_random_file(big["random"], big_size)
    make_text_file(big["text"], big_size)
    # The image sets, by kind: relative path in the root -> generated file.
    sets = {kind: {} for kind in KINDS}
    for kind in KINDS:
        for i in range(images):
            name = f"{kind}_{i:03d}.png"
            path = os.path.join(data, name)
            padded_png(path, kind, i + 1, IMAGE_SIZE)
            sets[kind][f"background/{name}"] = path

    log("chunk costs (ceiling) ...")
    costs = measure_ceiling(build, big, options.quick)

    root = os.path.join(work, "root") + "/"
    shutil.rmtree(root, ignore_errors=True)
    os.makedirs(os.path.join(root, "background"))
    # Copies, not links: the pull folders link the same generated files, and every link made or
    # removed changes the inode's ctime, which the server's rescan rightly takes for a change of
    # the file (it would hash the whole root again after the next change of background/).
    for kind in KINDS:
        for rel, path in sets[kind].items():
            shutil.copy2(path, os.path.join(root, rel))

    results = {"images": images, "image_size": IMAGE_SIZE, "set_size": set_size,
               "big_size": big_size, "ncpu": ncpu, "costs": costs}
    broker = broker_t(os.path.join(work, "broker"))
    server = None
    try:
        server = server_t(os.path.join(build, "server", "host", "context_sync_server"),
                          os.path.join(build, "client", "ctxsync"), work, root, broker.port)
        results["rest_kb"] = proc_status(server.pid, "VmRSS")
        results["peak_reset"] = reset_peak(server.pid)
        if not results["peak_reset"]:
            log("warning: /proc/PID/clear_refs refused; peaks are since the server started")

        # What a pull costs when nothing differs: process start, connection, list.
        dest = prepare_pull_dir(work, "pull_noop", {**sets["random"], **sets["text"]})
        rc, _, noop = ctxsync_run(server, ["pull", dest], "bench-noop")
        results["pull_noop_s"] = noop

        # 1. one download of each kind (and 6 with one download).
        results["download"] = {}
        for kind in KINDS:
            other = sets["text" if kind == "random" else "random"]
            dest = prepare_pull_dir(work, f"pull_{kind}", other)
            log(f"download {kind} ...")
            with peak_t(server) as peak:
                rc, out, seconds = ctxsync_run(server, ["pull", dest], f"bench-pull-{kind}")
            ok = rc == 0 and all(same_file(os.path.join(dest, rel), path)
                                 for rel, path in sets[kind].items())
            results["download"][kind] = {"rc": rc, "ok": ok, "seconds": seconds,
                                         "peak_kb": peak.peak_kb, "rest_kb": peak.rest_kb,
                                         "cpu_s": peak.cpu}

        # 8. the JavaScript client pulling the random set, over TCP and through websockify.
        if js_available():
            results["js"] = {}
            bridge = websockify_t(work, broker.port)
            try:
                urls = {"tcp": f"mqtt://127.0.0.1:{broker.port}",
                        "websockify": f"ws://127.0.0.1:{bridge.port}/"}
                for transport, url in urls.items():
                    dest = prepare_pull_dir(work, "pull_js_noop", {**sets["random"], **sets["text"]})
                    _, noop_out, _ = js_run(url, ["pull", dest], f"bench-js-noop-{transport}")
                    dest = prepare_pull_dir(work, f"pull_js_{transport}", sets["text"])
                    log(f"download random by the JavaScript client, {transport} ...")
                    wait_quiet(server.pid)
                    rc, out, seconds = js_run(url, ["pull", dest], f"bench-js-{transport}")
                    ok = rc == 0 and all(same_file(os.path.join(dest, rel), path)
                                         for rel, path in sets["random"].items())
                    # The pull's own time as the command reports it (list, scan, transfer):
                    # Node's start-up, several seconds on a loaded machine, stays out.
                    try:
                        pull_s = json.loads(out)["transfer_ms"] / 1000.0
                        noop_s = json.loads(noop_out)["transfer_ms"] / 1000.0
                    except (ValueError, KeyError, TypeError):
                        pull_s, noop_s, ok = seconds, 0.0, False
                    results["js"][transport] = {"rc": rc, "ok": ok, "seconds": seconds,
                                                "pull_s": pull_s, "noop_s": noop_s,
                                                "out": out.strip()[-300:]}
            finally:
                bridge.stop()
        else:
            log("node or client/js/node_modules missing (scripts/setup-js): no JavaScript rows")

        # 8. the web page in chromium pulling the whole tree through websockify.
        if page_available():
            bridge = websockify_t(work, broker.port, os.path.join(WEB_DIR, "dist"))
            try:
                log("download of both sets by the web page in chromium ...")
                wait_quiet(server.pid)
                done = subprocess.run(
                    ["node", os.path.join(WEB_DIR, "bench", "page_pull.mjs"),
                     "--page", f"http://127.0.0.1:{bridge.port}/", "--images", str(2 * images)],
                    capture_output=True, timeout=1800)
                out = done.stdout.decode(errors="replace").strip()
                page = json.loads(out.splitlines()[-1]) if done.returncode == 0 and out else {}
                results["page"] = {"ok": page.get("files") == 2 * images
                                   and page.get("bytes") == 2 * set_size,
                                   "bytes": page.get("bytes", 0), "ms": page.get("ms", 0),
                                   "out": (out + done.stderr.decode(errors="replace"))[-300:]}
            finally:
                bridge.stop()
        else:
            log("chromium, web/node_modules or web/dist missing (scripts/setup-js): no page row")

        # 3 and 6: several clients at once, each pulling the random set.
        results["parallel"] = {}
        for clients in (2, 4, 10):
            log(f"{clients} downloads at once ...")
            jobs = []
            for i in range(clients):
                dest = prepare_pull_dir(work, f"pull_many_{i}", sets["text"])
                jobs.append((["pull", dest], f"bench-many-{i}"))
            with peak_t(server) as peak:
                runs = run_parallel(server, jobs)
            ok = all(r is not None and r[0] == 0 for r in runs) and all(
                same_file(os.path.join(work, f"pull_many_{i}", rel), path)
                for i in range(clients) for rel, path in sets["random"].items())
            per_client = [set_size / (end - start) for _, start, end in runs]
            span = max(r[2] for r in runs) - min(r[1] for r in runs)
            results["parallel"][clients] = {
                "ok": ok, "span_s": span, "aggregate_Bps": clients * set_size / span,
                "slowest_Bps": min(per_client), "fastest_Bps": max(per_client),
                "peak_kb": peak.peak_kb, "rest_kb": peak.rest_kb, "cpu_s": peak.cpu}

        # 2 and 6: one large file per kind into background/. The server takes it in whole,
        # then removes it (too large for a background): push reports exactly that. The time is
        # the one ctxsync reports for its chunks; the verdict's settle and list come after it.
        results["upload"] = {}
        for kind, source in big.items():
            log(f"upload {kind} ...")
            with peak_t(server) as peak:
                rc, out, seconds = ctxsync_run(
                    server, ["--json", "push", source, "--to", "background/", "--force"],
                    f"bench-push-{kind}")
            try:
                report = json.loads(out)
                transfer_s = report["transfer_ms"] / 1000.0
                ok = (rc == 5 and report["bytes"] == big_size
                      and "after receiving it" in report["files"][0]["error"])
            except (ValueError, KeyError, IndexError, TypeError):
                transfer_s, ok = seconds, False
            results["upload"][kind] = {"rc": rc, "ok": ok, "seconds": seconds,
                                       "transfer_s": transfer_s,
                                       "peak_kb": peak.peak_kb, "rest_kb": peak.rest_kb,
                                       "cpu_s": peak.cpu, "out": out.strip()[:400]}

        # 7. change on disk to broadcast.
        log("latency of a change ...")
        results["latency_s"] = measure_latency(server, root, 3 if options.quick else 5)
    finally:
        if server:
            server.stop()
        broker.stop()

    # 4 and 5.
    log("scan of 5 000 images and rescan (context_monitor_bench) ...")
    results["monitor"] = measure_monitor(build, work)
    results["broker"] = broker_setting
    results["load_before"] = load_before
    results["load_after"] = load_average()
    results["elapsed_s"] = time.monotonic() - started

    table = make_table(results)
    print(table)
    print(f"\nbroker: {broker_setting}; load average before {load_before}, after "
          f"{results['load_after']}; {results['elapsed_s']:.0f} s; ncpu {ncpu}")
    if options.json:
        with open(options.json, "w") as f:
            json.dump(results, f, indent=1, default=str)
    if options.markdown:
        with open(options.markdown, "w") as f:
            f.write(table + "\n")
    failed = [f"download {k}" for k, v in results["download"].items() if not v["ok"]]
    failed += [f"upload {k}" for k, v in results["upload"].items() if not v["ok"]]
    failed += [f"{k} downloads" for k, v in results["parallel"].items() if not v["ok"]]
    failed += [f"JavaScript download, {k}" for k, v in results.get("js", {}).items() if not v["ok"]]
    if "page" in results and not results["page"]["ok"]:
        failed.append("web page download")
    if failed:
        log(f"transfers that failed or did not verify: {', '.join(failed)}")
        return 1
    return 0


# --------------------------------------------------------------------------------------------
# the table


def pacing(senders):
    """The interval the server waits before each chunk and between files, in seconds."""
    return (5 * senders + 5) / 1000.0


def download_seconds_per_chunk(encode, senders):
    """The protocol's schedule for files of CHUNKS_PER_IMAGE chunks: one interval before every
    chunk, one before the first chunk of a file and one between files, plus the encoding."""
    return encode + pacing(senders) * (CHUNKS_PER_IMAGE + 2) / CHUNKS_PER_IMAGE


def make_table(r):
    costs = r["costs"]
    set_size = r["set_size"]
    big_size = r["big_size"]
    noop = r["pull_noop_s"]
    rows = []
    set_mb = f"{set_size / MB:.0f} MB"

    def mbps(bps):
        return f"{bps / MB:.1f} MB/s"

    def row(name, value, baseline, ratio, goal):
        rows.append((name, value, baseline, f"{ratio:.2f}" if ratio is not None else "-", goal))

    for kind in KINDS:
        d = r["download"][kind]
        ceiling = CHUNK / download_seconds_per_chunk(costs[f"encode/{kind}"], 1)
        net = set_size / max(d["seconds"] - noop, 1e-9)
        row(f"1 pull {set_mb} {kind}", mbps(net), mbps(ceiling) + " ceiling", net / ceiling,
            ">= 0.85")
    for kind in KINDS:
        u = r["upload"][kind]
        ceiling = CHUNK / (costs[f"encode/{kind}"] + costs[f"decode/{kind}"])
        net = big_size / max(u["transfer_s"], 1e-9)
        row(f"2 push {big_size / MB:.0f} MB {kind}", mbps(net), mbps(ceiling) + " ceiling",
            net / ceiling, ">= 0.85")
    for kind in KINDS:
        # The client's encode alone: what an upload reaches when everything else (the broker,
        # the server's decode, the acknowledgement) hides behind the next chunk's preparation.
        u = r["upload"][kind]
        bound = CHUNK / costs[f"encode/{kind}"]
        net = big_size / max(u["transfer_s"], 1e-9)
        row(f"2 push {big_size / MB:.0f} MB {kind}, vs encode", mbps(net),
            mbps(bound) + " encode alone", net / bound, "-")
    # The same work counted in CPU time, which the machine's load does not stretch: the server's
    # CPU seconds per chunk against the bare work of that chunk.
    chunks = set_size // CHUNK
    for kind in KINDS:
        d = r["download"][kind]
        bare = costs[f"cpu encode/{kind}"]
        per_chunk = d["cpu_s"] / chunks
        row(f"1 server CPU per chunk sent, {kind}", f"{per_chunk * 1000:.1f} ms",
            f"{bare * 1000:.1f} ms bare encode", bare / per_chunk, "-")
    for kind in KINDS:
        u = r["upload"][kind]
        bare = costs[f"cpu decode/{kind}"]
        per_chunk = u["cpu_s"] / -(-big_size // CHUNK)
        row(f"2 server CPU per chunk received, {kind}", f"{per_chunk * 1000:.1f} ms",
            f"{bare * 1000:.1f} ms bare decode", bare / per_chunk, "-")
    ten = r["parallel"][10]
    encode, decode = costs["encode/random"], costs["decode/random"]
    ceiling = min(10 * CHUNK / download_seconds_per_chunk(encode, 10),
                  r["ncpu"] * CHUNK / (encode + decode))
    row(f"3 ten pulls of {set_mb} at once", mbps(ten["aggregate_Bps"]),
        mbps(ceiling) + " ceiling", ten["aggregate_Bps"] / ceiling, "-")
    row("3 ten pulls: slowest / fastest", mbps(ten["slowest_Bps"]), mbps(ten["fastest_Bps"]),
        ten["slowest_Bps"] / ten["fastest_Bps"], "about 1")

    scan = r["monitor"]["BM_InitialScanVsMd5sum"]
    ours_ms = scan["real_time"]
    row("4 first scan of 5 000 images", f"{ours_ms:.0f} ms", f"{scan['md5sum_ms']:.0f} ms md5sum",
        scan["md5sum_ms"] / ours_ms, ">= 0.8")
    rescan = r["monitor"]["BM_RescanAfterOneChange"]
    row("5 rescan after one change", f"{rescan['real_time']:.1f} ms",
        f"{ours_ms:.0f} ms first scan", rescan["real_time"] / ours_ms, "small")
    one_image = rescan["MB_in_dir"] * 1024 * 1024 / rescan["files_in_dir"]
    row("5 bytes hashed by that rescan", f"{rescan['bytes_hashed']:.0f} B",
        f"{one_image:.0f} B (one image)", rescan["bytes_hashed"] / one_image, "1")

    def mem(kb):
        return f"{kb * 1024 / MB:.1f} MB"

    memory = [(1, r["download"]["random"])] + [(n, r["parallel"][n]) for n in (2, 4, 10)]
    for clients, m in memory:
        row(f"6 server peak RSS, {clients} pull(s)", mem(m["peak_kb"]),
            mem(m["rest_kb"]) + " before", m["peak_kb"] / m["rest_kb"], "flat")
    u = r["upload"]["random"]
    growth = (u["peak_kb"] - u["rest_kb"]) * 1024
    row(f"6 server peak growth, {big_size / MB:.0f} MB push", f"{growth / MB:.1f} MB",
        f"{big_size / MB:.0f} MB file", growth / big_size, "about 1")
    lat = sorted(r["latency_s"])
    median = lat[len(lat) // 2]
    row(f"7 write to ctx_list (median of {len(lat)})", f"{median * 1000:.0f} ms",
        "1000 ms debounce", median, "about 1")

    reference = r["download"]["random"]
    reference_net = set_size / max(reference["seconds"] - noop, 1e-9)
    goals = {"tcp": ">= 0.8", "websockify": ">= 0.8"}
    for transport, j in r.get("js", {}).items():
        net = set_size / max(j["pull_s"] - j["noop_s"], 1e-9)
        row(f"9 JavaScript pull {set_mb} random, Node, {transport}", mbps(net),
            mbps(reference_net) + " ctxsync, TCP", net / reference_net, goals[transport])
    if r.get("page", {}).get("ms"):
        both = [r["download"][kind] for kind in KINDS]
        both_net = 2 * set_size / max(sum(d["seconds"] - noop for d in both), 1e-9)
        net = r["page"]["bytes"] / (r["page"]["ms"] / 1000.0)
        row(f"10 web page pull {2 * set_size / MB:.0f} MB, chromium, websockify", mbps(net),
            mbps(both_net) + " ctxsync, TCP, both sets", net / both_net, ">= 0.6")

    header = ("measurement", "value", "baseline", "ratio", "goal")
    widths = [max(len(str(x[i])) for x in rows + [header]) for i in range(5)]

    def line(cells):
        return "| " + " | ".join(str(c).ljust(w) for c, w in zip(cells, widths)) + " |"

    out = [line(header), "|" + "|".join("-" * (w + 2) for w in widths) + "|"]
    out += [line(x) for x in rows]
    return "\n".join(out)


if __name__ == "__main__":
    sys.exit(main())
