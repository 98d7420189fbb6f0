#!/usr/bin/env python3
"""Writes the seed corpus of every fuzz target into corpus/<target>/.

The seeds are small, well-formed inputs of each format plus a few that sit on known edges (wrong
hash, truncated zlib framing, a declared length above one chunk, unsafe paths), so that a short
run starts from the interesting places instead of from empty input. Run it again after changing
a target's input layout; the files are committed.

Usage: tests/fuzz/make_seeds.py
"""

import base64
import hashlib
import json
import os
import shutil
import struct
import zlib

HERE = os.path.dirname(os.path.abspath(__file__))
CORPUS = os.path.join(HERE, "corpus")
IMAGES = os.path.join(HERE, "..", "data", "images")


def write(target, name, data):
    folder = os.path.join(CORPUS, target)
    os.makedirs(folder, exist_ok=True)
    if isinstance(data, str):
        data = data.encode("utf-8")
    with open(os.path.join(folder, name), "wb") as out:
        out.write(data)


def compact(value):
    return json.dumps(value, separators=(",", ":"), ensure_ascii=False)


def framed(raw, level=6, declared=None):
    """qCompress framing: 4-byte big-endian uncompressed length, then the zlib stream."""
    length = len(raw) if declared is None else declared
    return struct.pack(">I", length) + zlib.compress(raw, level)


def chunk(raw, level=0, file="dir/a.txt", index=0, total=1, hash_hex=None, payload=None):
    if payload is None:
        payload = framed(raw, level) if level else raw
    return {
        "file": file,
        "chunk_index": index,
        "remaining_files": 0,
        "total_chunks": total,
        "data": base64.b64encode(payload).decode("ascii"),
        "compression": level,
        "hash": hash_hex if hash_hex is not None else hashlib.md5(raw).hexdigest(),
        "percent": 100,
        "speed": 12.5,
    }


def chunk_decode():
    t = "fuzz_chunk_decode"
    text = b"hello context root\n" * 8
    # Mode 0: chunk objects as received.
    write(t, "plain", b"\x00" + compact(chunk(text)).encode())
    write(t, "compressed", b"\x00" + compact(chunk(text, level=6)).encode())
    write(t, "bad_hash", b"\x00" + compact(chunk(text, hash_hex="0" * 32)).encode())
    write(t, "upper_hash", b"\x00" + compact(chunk(text, hash_hex=hashlib.md5(text).hexdigest().upper())).encode())
    write(t, "truncated_frame", b"\x00" + compact(chunk(text, level=6, payload=framed(text)[:9])).encode())
    write(t, "declared_too_long", b"\x00" + compact(chunk(text, level=6, payload=framed(text, declared=512001))).encode())
    write(t, "data_not_text", b"\x00" + b'{"data":5,"compression":"1","hash":null}')
    write(t, "empty", b"\x00" + compact(chunk(b"")).encode())
    # Mode 1: bare payloads (compression byte, Base64 text).
    write(t, "bare_plain", b"\x01\x00" + base64.b64encode(text))
    write(t, "bare_zlib", b"\x01\x09" + base64.b64encode(framed(text, 9)))
    write(t, "bare_junk", b"\x01\x01" + b"!!**==AAAA====")
    # Mode 2: raw bytes for the round trip (level byte first).
    write(t, "round_level0", b"\x02\x00" + text)
    write(t, "round_level9", b"\x02\x09" + bytes(range(256)))


def chunk_ack():
    t = "fuzz_chunk_ack"
    write(t, "ack", b"\x00" + compact({"file": "dir/a.txt", "chunkIndex": 3}).encode())
    write(t, "ack_snake_case", b"\x00" + compact({"file": "a", "chunk_index": 3}).encode())
    write(t, "ack_wrong_types", b"\x00" + compact({"file": 7, "chunkIndex": "2"}).encode())
    write(t, "ack_huge_index", b"\x00" + b'{"file":"a","chunkIndex":1e300}')
    write(t, "round_trip", b"\x01" + struct.pack("<i", 41) + "dir/é.txt".encode())
    write(t, "round_trip_negative", b"\x01" + struct.pack("<i", -1) + b"x")


def request_body():
    t = "fuzz_request_body"

    def req(name, client, type_, message=None, extra=None):
        payload = {} if message is None else {"message": message}
        body = {"type": type_, "payload": payload}
        if extra:
            body.update(extra)
        write(t, name, bytes([client]) + compact(body).encode())

    text = b"uploaded by a client\n"
    req("ctx_request", 0, "ctx_request")
    req("download", 1, "ctx_download_request", ["a.txt", "dir/b.txt", "", 5])
    req("download_escape", 2, "ctx_download_request", ["../outside/keep.txt", "/etc/passwd"])
    req("delete", 0, "ctx_delete_request", ["a.txt", "dir/../../outside/keep.txt"])
    req("rename", 1, "ctx_rename_request", [{"a.txt": "dir/moved.txt"}, {"same.txt": "../outside/x"}])
    req("replace", 2, "ctx_replace_request",
        {"a.txt": hashlib.md5(b"alpha\n").hexdigest(), "copy.txt": hashlib.md5(b"alpha\n").hexdigest(),
         "../escape.txt": hashlib.md5(b"bravo\n").hexdigest()})
    req("chunk", 0, "ctx_chunk", chunk(text, file="new/up.txt"))
    req("chunk_escape", 1, "ctx_chunk", chunk(text, file="../outside/keep.txt"))
    req("chunk_huge_total", 2, "ctx_chunk", chunk(text, file="big.bin", total=10**12))
    req("chunk_ack", 0, "ctx_chunk_ack", {"file": "a.txt", "chunkIndex": 0})
    req("ready_to_check", 1, "ready_to_check", {"context_hash": "0" * 32})
    req("stop", 2, "ctx_stop_transfer")
    req("state_of_service", 0, "state_of_service")
    req("unknown_type", 1, "no_such_type")
    req("spoofed_sender", 2, "ctx_request", extra={"sender": "someone-else"})
    write(t, "type_not_string", b"\x00" + b'{"type":1,"payload":{}}')
    write(t, "not_object", b"\x01" + b'["ctx_request"]')
    write(t, "not_json", b"\x02" + b'{"type":"ctx_request",')
    write(t, "topic_bad_client", b"\x03" + b"orvane/rr/context_sync/req/a/b\n" + b'{"type":"ctx_request"}')
    write(t, "topic_presence", b"\x03" + b"orvane/rr/presence/alpha\nlost")


def image_header():
    t = "fuzz_image_header"
    for name in ("bg_640x284.png", "bg_640x284.webp", "bg_640x284_baseline.jpg",
                 "bg_640x284_progressive.jpg", "bg_284x640.jpg", "first_chunk_not_ihdr.png",
                 "sof9_only.jpg"):
        shutil.copyfile(os.path.join(IMAGES, name), os.path.join(CORPUS, t, name))
    # The GIF fixture is large; its header is all the readers look at.
    with open(os.path.join(IMAGES, "bg_640x284.gif"), "rb") as gif:
        write(t, "bg_640x284_head.gif", gif.read(64))
    write(t, "jpeg_tiny", b"\xff\xd8\xff")
    write(t, "png_signature_only", b"\x89PNG\r\n\x1a\n")
    write(t, "riff_webp_short", b"RIFF\x00\x00\x00\x00WEBPVP8 ")


def json_path():
    t = "fuzz_json_path"
    doc = compact({"global": {"installation_id": "abc", "list": [1, {"x": 2}, [3, 4]]},
                   "mqtt": {"host": "127.0.0.1", "port": 1883}, "flag": True})
    write(t, "object_key", "global/installation_id\n\"new\"\n" + doc)
    write(t, "array_index", "global/list[1]/x\n5\n" + doc)
    write(t, "nested_index", "global/list[2][1]\nnull\n" + doc)
    write(t, "create_branch", "a/b/c\n{\"k\":[1]}\n" + doc)
    write(t, "past_plain_value", "mqtt/port/deeper\n1\n" + doc)
    write(t, "trailing_slash", "mqtt/\n2\n" + doc)
    write(t, "array_root", "[0]/1\n3\n[[1,2],[3]]")
    write(t, "bad_bracket", "global/list[x\n1\n" + doc)
    write(t, "gap_index", "global/list[6]\n1\n" + doc)
    # Found by this target: a write far past an array's end once filled the gap until memory ran
    # out.
    write(t, "regression_far_index", "a[200000000]\n1\n{}")


def client_path():
    t = "fuzz_client_path"
    for i, path in enumerate(["dir/file.txt", "background/bg.png", "a/../b", "./a", "a/./",
                              "/etc/passwd", "a//b", "a\\b", "dir/", "TMP_x/[TO_SEND]f",
                              "é/ü.txt", "a" * 1030, "tab\tname"]):
        write(t, "utf8_%02d" % i, b"\x00" + path.encode("utf-8"))
    write(t, "utf16_surrogate", b"\x01" + "a/".encode("utf-16-le") + b"\x00\xd8")


def main():
    if os.path.isdir(CORPUS):
        shutil.rmtree(CORPUS)
    os.makedirs(os.path.join(CORPUS, "fuzz_image_header"))
    chunk_decode()
    chunk_ack()
    request_body()
    image_header()
    json_path()
    client_path()


if __name__ == "__main__":
    main()
