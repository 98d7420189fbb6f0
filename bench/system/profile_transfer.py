#!/usr/bin/env python3
"""One transfer under a profiler: a private mosquitto on a free loopback port, the server program
on its own context root and one `ctxsync pull` (of N two-chunk background images) or
`ctxsync push` (of one file), with either side started through a wrapper command such as
`valgrind --tool=callgrind --callgrind-out-file=server.%p`. Prints the wall time and the CPU
seconds of the server and of ctxsync, per chunk, so that a change can be compared with the
previous build in the same session.

  bench/system/profile_transfer.py --build-dir build/release pull --kind random --images 10 \
      --server-wrap "valgrind --tool=callgrind --callgrind-out-file=/tmp/srv.%p"
  bench/system/profile_transfer.py --build-dir build/release push --size-mb 10 --kind text \
      --client-wrap "perf record -g -o /tmp/client.perf"

Data comes from bench/system/system_bench.py's generators and lives in --work-dir.
"""
import argparse
import json
import os
import resource
import shlex
import shutil
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import system_bench as sb  # noqa: E402


def wrapped(wrap, program, work, name):
    """A script that runs `program` through `wrap`, so that server_t and ctxsync_args can start
    it like the program itself."""
    if not wrap:
        return program
    script = os.path.join(work, name)
    with open(script, "w") as f:
        f.write(f"#!/bin/sh\nexec {wrap} {shlex.quote(program)} \"$@\"\n")
    os.chmod(script, 0o755)
    return script


def children_cpu():
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--build-dir", required=True)
    parser.add_argument("--work-dir", default="/tmp/context_sync_profile")
    parser.add_argument("--broker-nodelay", action="store_true")
    parser.add_argument("--server-wrap", default="")
    parser.add_argument("--client-wrap", default="")
    parser.add_argument("--ctxsync", help="another ctxsync program than the build folder's")
    parser.add_argument("mode", choices=("pull", "push"))
    parser.add_argument("--kind", choices=sb.KINDS, default="random")
    parser.add_argument("--images", type=int, default=10, help="pull: two-chunk images")
    parser.add_argument("--size-mb", type=int, default=10, help="push: file size")
    options = parser.parse_args()

    if options.broker_nodelay:
        sb.broker_t.extra_conf = "set_tcp_nodelay true\n"
    build = os.path.abspath(options.build_dir)
    work = os.path.abspath(options.work_dir)
    data = os.path.join(work, "data")
    os.makedirs(data, exist_ok=True)
    root = os.path.join(work, "root") + "/"
    shutil.rmtree(root, ignore_errors=True)
    os.makedirs(os.path.join(root, "background"))

    images = {}
    if options.mode == "pull":
        for i in range(options.images):
            name = f"{options.kind}_{i:03d}.png"
            path = os.path.join(data, name)
            sb.padded_png(path, options.kind, i + 1, sb.IMAGE_SIZE)
            images[f"background/{name}"] = path
            os.link(path, os.path.join(root, "background", name))
        chunks = options.images * sb.CHUNKS_PER_IMAGE
    else:
        size = options.size_mb * sb.MB
        source = os.path.join(data, f"{options.kind}_{size}.bin")
        (sb.make_random_file if options.kind == "random" else sb.make_text_file)(source, size)
        chunks = -(-size // sb.CHUNK)

    server_program = wrapped(options.server_wrap,
                             os.path.join(build, "server", "host", "context_sync_server"), work,
                             "server.sh")
    ctxsync = os.path.abspath(options.ctxsync or os.path.join(build, "client", "ctxsync"))
    client_program = wrapped(options.client_wrap, ctxsync, work, "ctxsync.sh")
    broker = sb.broker_t(os.path.join(work, "broker"))
    server = None
    try:
        # The readiness probe runs the plain client: a wrapped one would be profiled too.
        server = sb.server_t(server_program, ctxsync, work, root, broker.port)
        server.ctxsync = client_program
        server_cpu = sb.proc_cpu_seconds(server.pid)
        client_cpu = children_cpu()
        if options.mode == "pull":
            dest = sb.prepare_pull_dir(work, "pull", {})
            rc, out, seconds = sb.ctxsync_run(server, ["pull", dest], "profile-pull", 120)
            ok = rc == 0 and all(sb.same_file(os.path.join(dest, rel), path)
                                 for rel, path in images.items())
        else:
            rc, out, seconds = sb.ctxsync_run(
                server, ["--json", "push", source, "--to", "background/", "--force"],
                "profile-push", 120)
            ok = rc in (0, 5)
            try:
                transfer = json.loads(out)["transfer_ms"] / 1000.0
            except (ValueError, KeyError, TypeError):
                transfer, ok = seconds, False
            # ctxsync's own time for its chunks: without start, connection, settle and list.
            print(f"push: {seconds:.2f} s, of which {transfer:.2f} s chunks: "
                  f"{transfer / chunks * 1000:.1f} ms per chunk, "
                  f"{size / transfer / sb.MB:.1f} MB/s")
        server_cpu = sb.proc_cpu_seconds(server.pid) - server_cpu
        client_cpu = children_cpu() - client_cpu
    finally:
        if server:
            server.stop()
        broker.stop()
    print(f"{options.mode} {options.kind}: rc {rc} ({'ok' if ok else 'FAILED'}), {chunks} chunks, "
          f"{seconds:.2f} s wall; server CPU {server_cpu:.2f} s "
          f"({server_cpu / chunks * 1000:.1f} ms/chunk), ctxsync CPU {client_cpu:.2f} s "
          f"({client_cpu / chunks * 1000:.1f} ms/chunk); load {sb.load_average()}")
    if not ok:
        print(out)
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
