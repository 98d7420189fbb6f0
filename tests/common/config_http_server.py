#!/usr/bin/env python3
"""A small configuration server for tests, on a free loopback port.

GET <path> answers the JSON document (or the member that the path names, "/" steps), PUT <path>
stores the JSON body at that path and appends {"path": ..., "body": ...} to the PUT log. Options
make it misbehave: --fail-put answers PUTs with 500, --non-json answers GETs with plain text,
--get-status answers GETs with that status, --delay-ms waits before every answer.

The first line on standard output is "PORT <n>" once the socket listens.
"""

import argparse
import json
import sys
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from urllib.parse import urlsplit

LOCK = threading.Lock()


def steps(path):
    return [step for step in urlsplit(path).path.split("/") if step]


class Handler(BaseHTTPRequestHandler):
    server_version = "config-test/1"

    def log_message(self, fmt, *args):  # keep the test output quiet
        pass

    def answer(self, status, body, content_type="application/json"):
        self.send_response(status)
        self.send_header("Content-Type", content_type)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def do_GET(self):
        options = self.server.options
        time.sleep(options.delay_ms / 1000.0)
        if options.non_json:
            self.answer(200, b"<html>configuration server</html>", "text/html")
            return
        if options.get_status != 200:
            self.answer(options.get_status, b'{"error":"refused"}')
            return
        with LOCK:
            node = self.server.document
            for step in steps(self.path):
                if isinstance(node, dict) and step in node:
                    node = node[step]
                else:
                    self.answer(404, b'{"error":"not found"}')
                    return
            body = json.dumps(node).encode()
        self.answer(200, body)

    def do_PUT(self):
        options = self.server.options
        length = int(self.headers.get("Content-Length", "0"))
        body = self.rfile.read(length).decode("utf-8", "replace")
        time.sleep(options.delay_ms / 1000.0)
        with LOCK:
            if options.put_log:
                with open(options.put_log, "a", encoding="utf-8") as log:
                    log.write(json.dumps({"path": self.path, "body": body}) + "\n")
            if options.fail_put:
                self.answer(500, b'{"error":"store failed"}')
                return
            try:
                value = json.loads(body)
            except ValueError:
                self.answer(400, b'{"error":"body is not JSON"}')
                return
            names = steps(self.path)
            node = self.server.document
            for step in names[:-1]:
                node = node.setdefault(step, {})
            if names:
                node[names[-1]] = value
        self.answer(200, b'{"result":"ok"}')


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--document", required=True, help="file with the JSON document")
    parser.add_argument("--put-log", default="")
    parser.add_argument("--fail-put", action="store_true")
    parser.add_argument("--non-json", action="store_true")
    parser.add_argument("--get-status", type=int, default=200)
    parser.add_argument("--delay-ms", type=int, default=0)
    options = parser.parse_args()

    with open(options.document, encoding="utf-8") as source:
        document = json.load(source)

    server = ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    server.daemon_threads = True
    server.options = options
    server.document = document
    print("PORT %d" % server.server_address[1], flush=True)
    try:
        server.serve_forever()
    except KeyboardInterrupt:
        pass
    return 0


if __name__ == "__main__":
    sys.exit(main())
