#!/usr/bin/env python3
"""One 50 MB pull through every broker topology of the deployment tests, each as a ratio to the
same pull through one local mosquitto measured in the same run:

  mosquitto        the baseline: server and client on one private mosquitto (MQTT 5), and the
                   same over MQTT 3.1.1;
  bridge           the server on a "device" mosquitto, the client on a "cloud" mosquitto, the
                   rr tree bridged both ways below site/<installation_id>/ (docs/deployment.md);
  rabbitmq         one RabbitMQ node with the MQTT plugin (MQTT 3.1.1);
  rabbitmq-cluster three clustered nodes, the server on the first, the client on the second.

The 50 MB are 49 valid 640 x 284 PNGs of 1 024 000 bytes (two whole chunks each) with random
bulk, as in bench/system/system_bench.py. Everything listens on 127.0.0.1 only; brokers, nodes and
the server are stopped by their own PIDs at the end. Prints a Markdown table.

  bench/deployment/deployment_bench.py --build-dir build/dev [--quick] [--no-rabbitmq]
"""
import argparse
import hashlib
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "system"))
from system_bench import padded_png, free_port  # noqa: E402

MB = 1000 * 1000
IMAGE = 1024000
INSTALLATION = "0123abcd"
# Pulls per topology; the fastest counts (the machine may be shared, and a slow round is noise).
ROUNDS = 2


def log(message):
    print(message, file=sys.stderr, flush=True)


def wait_port(port, process, timeout):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if process.poll() is not None:
            raise RuntimeError(f"{process.args[0]} exited with {process.returncode}")
        try:
            socket.create_connection(("127.0.0.1", port), timeout=0.2).close()
            return
        except OSError:
            time.sleep(0.05)
    raise RuntimeError(f"nothing listens on {port}")


def stop(process, sig=signal.SIGTERM):
    if process.poll() is None:
        process.send_signal(sig)
        try:
            process.wait(20)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


class mosquitto_t:
    def __init__(self, work, extra=""):
        os.makedirs(work, exist_ok=True)
        self.port = free_port()
        conf = os.path.join(work, "mosquitto.conf")
        with open(conf, "w") as f:
            f.write(f"log_dest stderr\nuser root\npersistence false\nset_tcp_nodelay true\n"
                    f"listener {self.port} 127.0.0.1\nallow_anonymous true\n{extra}")
        self.log = open(os.path.join(work, "mosquitto.log"), "wb")
        self.process = subprocess.Popen(["mosquitto", "-c", conf], stderr=self.log,
                                        stdout=subprocess.DEVNULL)
        wait_port(self.port, self.process, 10)

    def stop(self):
        stop(self.process)
        self.log.close()


class rabbitmq_t:
    """`count` nodes started side by side; more than one form a cluster (classic peer discovery)."""

    def __init__(self, work, count):
        os.makedirs(work, exist_ok=True)
        cookie = os.path.join(work, ".erlang.cookie")
        with open(cookie, "w") as f:
            f.write(f"ctxsync-bench-{os.getpid()}")
        os.chmod(cookie, 0o400)
        self.epmd_port = free_port()
        self.epmd = subprocess.Popen(["epmd", "-port", str(self.epmd_port)],
                                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        names = [f"ctxbench{os.getpid()}n{i + 1}@localhost" for i in range(count)]
        self.ports = []
        self.nodes = []
        self.logs = []
        for i, name in enumerate(names):
            folder = os.path.join(work, f"node{i + 1}")
            os.makedirs(os.path.join(folder, "mnesia"), exist_ok=True)
            os.makedirs(os.path.join(folder, "log"), exist_ok=True)
            amqp, dist, mqtt = free_port(), free_port(), free_port()
            conf = [f"listeners.tcp.default = 127.0.0.1:{amqp}",
                    f"mqtt.listeners.tcp.default = 127.0.0.1:{mqtt}",
                    "mqtt.allow_anonymous = true", "loopback_users = none"]
            if count > 1:
                conf.append("cluster_formation.peer_discovery_backend = classic_config")
                conf += [f"cluster_formation.classic_config.nodes.{k + 1} = {n}"
                         for k, n in enumerate(names)]
            with open(os.path.join(folder, "rabbitmq.conf"), "w") as f:
                f.write("\n".join(conf) + "\n")
            env = dict(os.environ, HOME=work, ERL_EPMD_PORT=str(self.epmd_port),
                       RABBITMQ_NODENAME=name, RABBITMQ_NODE_IP_ADDRESS="127.0.0.1",
                       RABBITMQ_NODE_PORT=str(amqp), RABBITMQ_DIST_PORT=str(dist),
                       RABBITMQ_MNESIA_BASE=os.path.join(folder, "mnesia"),
                       RABBITMQ_LOG_BASE=os.path.join(folder, "log"), RABBITMQ_LOGS="-",
                       RABBITMQ_CONFIG_FILE=os.path.join(folder, "rabbitmq.conf"),
                       RABBITMQ_ADVANCED_CONFIG_FILE=os.path.join(folder, "advanced.config"),
                       RABBITMQ_CONF_ENV_FILE=os.path.join(folder, "rabbitmq-env.conf"),
                       RABBITMQ_ENABLED_PLUGINS="rabbitmq_mqtt",
                       RABBITMQ_ENABLED_PLUGINS_FILE=os.path.join(folder, "enabled_plugins"),
                       RUNNING_UNDER_SYSTEMD="1")
            console = os.path.join(folder, "console.log")
            self.logs.append(console)
            self.nodes.append(subprocess.Popen(
                ["/usr/lib/rabbitmq/bin/rabbitmq-server"], env=env, cwd=folder,
                stdout=open(console, "wb"), stderr=subprocess.STDOUT))
            self.ports.append(mqtt)
        deadline = time.monotonic() + 180
        while time.monotonic() < deadline:
            if all("Server startup complete" in open(p, errors="replace").read()
                   for p in self.logs):
                return
            if any(n.poll() is not None for n in self.nodes):
                break
            time.sleep(0.5)
        self.stop()
        raise RuntimeError("RabbitMQ nodes did not start")

    def stop(self):
        for node in self.nodes:
            stop(node, signal.SIGKILL)
        stop(self.epmd, signal.SIGKILL)


class server_t:
    def __init__(self, program, work, root, port, protocol, base="orvane"):
        state = os.path.join(work, "state")
        os.makedirs(state, exist_ok=True)
        settings = os.path.join(work, "settings.json")
        with open(settings, "w") as f:
            json.dump({"static": {"orvane": {
                "paths": {"client_communication": state, "logs": os.path.join(state, "logs")},
                "comunication": {"mqtt": {"host": "127.0.0.1", "port": port,
                                          "client_id": "context-sync-server",
                                          "protocol_version": protocol, "topic_base": base}}}}},
                      f)
        self.out = open(os.path.join(work, "server.out"), "wb")
        self.process = subprocess.Popen([program, "--root", root, "--config", settings,
                                         "--log-level", "3"],
                                        stdout=self.out, stderr=subprocess.STDOUT)

    def stop(self):
        stop(self.process)
        self.out.close()


def ctxsync(build, port, protocol, base, args, timeout=30):
    command = [os.path.join(build, "client", "ctxsync"), "--broker", f"127.0.0.1:{port}",
               "--protocol", "5" if protocol == 5 else "3.1.1", "--topic-base", base,
               "--client-id", "bench-client", "--timeout", str(timeout)] + args
    start = time.monotonic()
    done = subprocess.run(command, capture_output=True, timeout=timeout * 40)
    return done.returncode, time.monotonic() - start, done.stderr.decode(errors="replace")


def md5(path):
    with open(path, "rb") as f:
        return hashlib.md5(f.read()).hexdigest()


def measure(build, work, root, expected, server_port, server_protocol, server_base,
            client_port, client_protocol, client_base):
    """Starts the server, waits until it answers, then times pulls into an empty folder; returns
    the fastest."""
    program = os.path.join(build, "server", "host", "context_sync_server")
    server = server_t(program, os.path.join(work, "server"), root, server_port, server_protocol,
                      server_base)
    try:
        deadline = time.monotonic() + 60
        while ctxsync(build, client_port, client_protocol, client_base, ["list"], 3)[0] != 0:
            if time.monotonic() > deadline:
                raise RuntimeError("the server did not answer through this broker")
            time.sleep(0.5)
        fastest = None
        for _ in range(ROUNDS):
            target = os.path.join(work, "pulled")
            shutil.rmtree(target, ignore_errors=True)
            os.makedirs(target)
            rc, seconds, err = ctxsync(build, client_port, client_protocol, client_base,
                                       ["pull", target])
            if rc != 0:
                raise RuntimeError(f"pull failed ({rc}): {err}")
            for rel, digest in expected.items():
                if md5(os.path.join(target, rel)) != digest:
                    raise RuntimeError(f"{rel} differs after the pull")
            fastest = seconds if fastest is None else min(fastest, seconds)
        return fastest
    finally:
        server.stop()


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--build-dir", default="build/dev")
    parser.add_argument("--work-dir", default=os.path.join(
        os.environ.get("CONTEXT_SYNC_BENCH_DIR", tempfile.gettempdir()),
        "context_sync_bench_deployment"))
    parser.add_argument("--quick", action="store_true", help="10 MB instead of 50 MB")
    parser.add_argument("--no-rabbitmq", action="store_true")
    options = parser.parse_args()

    build = os.path.abspath(options.build_dir)
    work = os.path.abspath(options.work_dir)
    size = (10 if options.quick else 50) * MB
    count = -(-size // IMAGE)
    data = os.path.join(work, "data", "background")
    os.makedirs(data, exist_ok=True)
    expected = {}
    for i in range(count):
        path = os.path.join(data, f"image_{i:03d}.png")
        padded_png(path, "random", 7000 + i, IMAGE)
        expected[f"background/image_{i:03d}.png"] = md5(path)
    for name in os.listdir(data):
        if f"background/{name}" not in expected:
            os.remove(os.path.join(data, name))

    def fresh_root(name):
        # The server gets copies: it may rewrite or remove what it does not accept.
        root = os.path.join(work, name, "root")
        shutil.rmtree(os.path.join(work, name), ignore_errors=True)
        shutil.copytree(data, os.path.join(root, "background"))
        return root + "/"

    rows = []
    log(f"deployment bench: pull of {count} files, {count * IMAGE / MB:.1f} MB")

    broker = mosquitto_t(os.path.join(work, "mosquitto"))
    try:
        base_s = measure(build, os.path.join(work, "mosquitto"), fresh_root("mosquitto"), expected,
                         broker.port, 5, "orvane", broker.port, 5, "orvane")
    finally:
        broker.stop()
    rows.append(("mosquitto 2.0 alone", "5", base_s))
    log(f"  mosquitto: {base_s:.1f} s")

    # The same broker over MQTT 3.1.1: what the protocol version alone changes, next to RabbitMQ.
    broker = mosquitto_t(os.path.join(work, "mosquitto311"))
    try:
        seconds = measure(build, os.path.join(work, "mosquitto311"), fresh_root("mosquitto311"),
                          expected, broker.port, 4, "orvane", broker.port, 4, "orvane")
    finally:
        broker.stop()
    rows.append(("mosquitto 2.0 alone", "3.1.1", seconds))
    log(f"  mosquitto over 3.1.1: {seconds:.1f} s")

    cloud = mosquitto_t(os.path.join(work, "cloud"), "max_inflight_messages 1\n")
    try:
        bridge = (f"max_inflight_messages 1\nconnection cloud-{INSTALLATION}\n"
                  f"address 127.0.0.1:{cloud.port}\nremote_clientid device-{INSTALLATION}\n"
                  "cleansession true\ntry_private true\nrestart_timeout 1\n"
                  f"topic rr/# both 1 orvane/ site/{INSTALLATION}/orvane/\n")
        device = mosquitto_t(os.path.join(work, "device"), bridge)
        try:
            seconds = measure(build, os.path.join(work, "bridge"), fresh_root("bridge"), expected,
                              device.port, 5, "orvane", cloud.port, 5,
                              f"site/{INSTALLATION}/orvane")
        finally:
            device.stop()
    finally:
        cloud.stop()
    rows.append(("mosquitto bridge device -> cloud", "5 (bridge 3.1.1)", seconds))
    log(f"  bridge: {seconds:.1f} s")

    if not options.no_rabbitmq:
        nodes = rabbitmq_t(os.path.join(work, "rabbitmq"), 1)
        try:
            seconds = measure(build, os.path.join(work, "rabbit1"), fresh_root("rabbit1"),
                              expected, nodes.ports[0], 4, "orvane", nodes.ports[0], 4, "orvane")
        finally:
            nodes.stop()
        rows.append(("RabbitMQ 3.10 MQTT plugin, one node", "3.1.1", seconds))
        log(f"  rabbitmq: {seconds:.1f} s")
        nodes = rabbitmq_t(os.path.join(work, "rabbitmq-cluster"), 3)
        try:
            seconds = measure(build, os.path.join(work, "rabbit3"), fresh_root("rabbit3"),
                              expected, nodes.ports[0], 4, "orvane", nodes.ports[1], 4, "orvane")
        finally:
            nodes.stop()
        rows.append(("RabbitMQ 3.10, three-node cluster (server and client on different nodes)",
                     "3.1.1", seconds))
        log(f"  rabbitmq cluster: {seconds:.1f} s")

    print(f"| Broker | Protocol | Pull of {count * IMAGE / MB:.0f} MB | MB/s | Time vs. local mosquitto |")
    print("|---|---|---|---|---|")
    for name, protocol, seconds in rows:
        print(f"| {name} | {protocol} | {seconds:.1f} s | {count * IMAGE / MB / seconds:.1f} | "
              f"{seconds / base_s:.2f} |")


if __name__ == "__main__":
    main()
