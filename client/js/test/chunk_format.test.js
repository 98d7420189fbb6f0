// The chunk format without a broker: compression framing byte-identical to the system zlib at
// level 9 (what the server's and ctxsync's compression produce), chunk counts, Base64, the
// checks of decodeChunk, the context hash and the path rule.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { createHash } from 'node:crypto';
import { promises as fs } from 'node:fs';
import path from 'node:path';
import { execFileSync } from 'node:child_process';
import {
    CHUNK_SIZE, chunkCount, compressFramed, decompressFramed, encodeChunk, decodeChunk, encodeAck,
    base64Encode, base64Decode, contextHash, EMPTY_CONTEXT_HASH, unsafePathReason, md5Hex, Md5,
    backoffCeilingMs, backoffDelayMs, slotFreeWaitMs, turnedAwayAt, backoffEndsAt, RetryBackoff, seededRandom,
} from '../src/index.js';
import { IMAGES_DIR } from './harness.js';

/**
 * The framing as the system zlib makes it (4-byte big-endian length, compress2 at level 9), for
 * several inputs in one run of python3 (its zlib module is the system zlib).
 */
function systemFramed(inputs) {
    const script = [
        'import sys,zlib,struct',
        'd=sys.stdin.buffer.read();i=0;o=[]',
        'while i<len(d):',
        ' n=struct.unpack(">I",d[i:i+4])[0];r=d[i+4:i+4+n];i+=4+n',
        ' f=struct.pack(">I",len(r))+zlib.compress(r,9);o.append(struct.pack(">I",len(f))+f)',
        'sys.stdout.buffer.write(b"".join(o))',
    ].join('\n');
    const input = Buffer.concat(
        inputs.flatMap((raw) => {
            const length = Buffer.alloc(4);
            length.writeUInt32BE(raw.length);
            return [length, Buffer.from(raw)];
        }),
    );
    const output = execFileSync('python3', ['-c', script], { input, maxBuffer: 64 << 20 });
    const framed = [];
    for (let i = 0; i < output.length; ) {
        const n = output.readUInt32BE(i);
        framed.push(new Uint8Array(output.subarray(i + 4, i + 4 + n)));
        i += 4 + n;
    }
    return framed;
}

const md5 = (bytes) => createHash('md5').update(bytes).digest('hex');

test('compression framing is byte-identical to the system zlib at level 9 for every test image and chunk', async () => {
    const inputs = [];
    for (const name of (await fs.readdir(IMAGES_DIR)).sort()) {
        const bytes = new Uint8Array(await fs.readFile(path.join(IMAGES_DIR, name)));
        for (let i = 0; i < chunkCount(bytes.length); i++) inputs.push(bytes.subarray(i * CHUNK_SIZE, (i + 1) * CHUNK_SIZE));
    }
    // Compressible and incompressible data of a whole chunk, and the smallest inputs.
    inputs.push(new TextEncoder().encode('background/wall.png '.repeat(CHUNK_SIZE / 20)));
    inputs.push(new Uint8Array(CHUNK_SIZE).map((_, i) => (i * 2654435761) >>> 24));
    inputs.push(new Uint8Array(0), new Uint8Array(1));
    assert.equal(inputs.length, 20);
    const expected = systemFramed(inputs);
    assert.equal(expected.length, inputs.length);
    inputs.forEach((raw, i) => assert.deepEqual(Buffer.from(compressFramed(raw)), Buffer.from(expected[i]), `input ${i}`));
});

test('the framing starts with the big-endian length and a level-9 zlib header, and round-trips', () => {
    const raw = new Uint8Array(1722).fill(7);
    const framed = compressFramed(raw);
    assert.deepEqual([...framed.subarray(0, 6)], [0x00, 0x00, 0x06, 0xba, 0x78, 0xda]);
    assert.deepEqual(decompressFramed(framed), raw);
    assert.equal(decompressFramed(framed.subarray(0, 10)), null);
    const wrongLength = framed.slice();
    wrongLength[3] ^= 1;
    assert.equal(decompressFramed(wrongLength), null);
});

test('chunk counts: 0 bytes none, 512000 one, 512001 two', () => {
    assert.equal(chunkCount(0), 0);
    assert.equal(chunkCount(1), 1);
    assert.equal(chunkCount(512000), 1);
    assert.equal(chunkCount(512001), 2);
    assert.equal(chunkCount(3 * 512000), 3);
});

test('a chunk object has the nine keys, decodes to its raw bytes, and fails when altered', () => {
    const raw = new Uint8Array(4000).map((_, i) => i % 251);
    const chunk = encodeChunk({ file: 'background/a.png', index: 1, totalChunks: 3, remainingFiles: 2, raw, now: 1795240800123 });
    assert.deepEqual(Object.keys(chunk).sort(), ['chunk_index', 'compression', 'data', 'file', 'hash', 'percent', 'remaining_files', 'speed', 'total_chunks']);
    assert.equal(chunk.hash, md5(raw));
    assert.equal(chunk.compression, 9);
    assert.equal(chunk.percent, 0);
    assert.equal(chunk.speed, 1795240800);
    assert.equal(chunk.data, Buffer.from(systemFramed([raw])[0]).toString('base64'));
    const decoded = decodeChunk(chunk);
    assert.equal(decoded.valid, true);
    assert.deepEqual(decoded.bytes, raw);
    assert.equal(decoded.index, 1);
    assert.equal(decoded.totalChunks, 3);

    assert.equal(decodeChunk({ ...chunk, hash: chunk.hash.toUpperCase() }).valid, false);
    const flipped = Buffer.from(chunk.data, 'base64');
    flipped[flipped.length - 1] ^= 0xff;
    assert.equal(decodeChunk({ ...chunk, data: flipped.toString('base64') }).valid, false);
    const plain = { ...chunk, compression: 0, data: Buffer.from(raw).toString('base64') };
    assert.equal(decodeChunk(plain).valid, true);
    assert.equal(decodeChunk({ ...plain, compression: -1 }).valid, false);
    assert.deepEqual(encodeAck('background/a.png', 1), { file: 'background/a.png', chunkIndex: 1 });
});

test('Base64 matches Node and decodes leniently', () => {
    for (const length of [0, 1, 2, 3, 4, 5, 1000, 12289]) {
        const bytes = new Uint8Array(length).map((_, i) => (i * 31 + 7) & 255);
        const text = base64Encode(bytes);
        assert.equal(text, Buffer.from(bytes).toString('base64'));
        assert.deepEqual(base64Decode(text), bytes);
        assert.deepEqual(base64Decode(text.replace(/(.{10})/g, '$1\n*')), bytes);
    }
});

test('MD5 whole and incremental', () => {
    const bytes = new Uint8Array(1_100_000).map((_, i) => i & 255);
    assert.equal(md5Hex(bytes), md5(bytes));
    assert.equal(new Md5().append(bytes.subarray(0, 512000)).append(bytes.subarray(512000)).hex(), md5(bytes));
    assert.equal(md5Hex('background/a.png'), md5('background/a.png'));
});

test('context hash: empty tree, order by code units, documented example', () => {
    assert.equal(contextHash({}), EMPTY_CONTEXT_HASH);
    assert.equal(md5('d41d8cd98f00b204e9800998ecf8427ed41d8cd98f00b204e9800998ecf8427e'), EMPTY_CONTEXT_HASH);
    const files = { 'background/b.jpg': '83eec03a45531e3f2b3545f70ebd4539', 'background/a.png': '06f97f4c370b69745fe88f0cfbeaeb47' };
    const names = md5('background/a.pngbackground/b.jpg');
    const contents = md5('06f97f4c370b69745fe88f0cfbeaeb4783eec03a45531e3f2b3545f70ebd4539');
    assert.equal(contextHash(files), md5(names + contents));
    // By UTF-16 code units: "B" before "z" before "é"; a surrogate pair (0xD83D...) before U+FFFD.
    const mixed = { 'background/z.png': '1', 'background/é.png': '2', 'background/B.png': '3', 'background/\u{1F600}.png': '4', 'background/\uFFFD.png': '5' };
    const order = ['background/B.png', 'background/z.png', 'background/é.png', 'background/\u{1F600}.png', 'background/\uFFFD.png'];
    assert.equal(contextHash(mixed), md5(md5(order.join('')) + md5(order.map((p) => mixed[p]).join(''))));
});

test('the path rule refuses what the server refuses', () => {
    assert.equal(unsafePathReason('background/a.png'), null);
    assert.equal(unsafePathReason(''), 'is empty');
    assert.equal(unsafePathReason('/etc/passwd'), 'is absolute');
    assert.equal(unsafePathReason('background/../../x'), "contains a '..' segment");
    assert.equal(unsafePathReason('./a'), "contains a '.' segment");
    assert.equal(unsafePathReason('a//b'), 'contains an empty segment');
    assert.equal(unsafePathReason('a\\b'), 'contains a backslash');
    assert.equal(unsafePathReason('a\nb'), 'contains a control character');
    assert.equal(unsafePathReason('a\u0085b'), 'contains a control character');
    assert.equal(unsafePathReason('a'.repeat(1025)), 'is longer than 1024 bytes');
    assert.equal(unsafePathReason('é'.repeat(513)), 'is longer than 1024 bytes');
    assert.equal(unsafePathReason('é'.repeat(512)), null);
    assert.equal(unsafePathReason('a\ud800b'), 'is not valid text');
});

test('busy back-off: before try n the wait is in [c/2, c], c = min(8000, 500 x 2^(n-2))', () => {
    assert.deepEqual([1, 2, 3, 4, 5, 6, 7, 8, 20].map(backoffCeilingMs), [0, 500, 1000, 2000, 4000, 8000, 8000, 8000, 8000]);
    assert.equal(backoffDelayMs(2, () => 0), 250);
    assert.equal(backoffDelayMs(2, () => 0.999999) <= 500, true);
    assert.equal(backoffDelayMs(6, () => 0.5), 6000);
});

test('busy rule: a request with no chunk is turned away after 4000 ms, or at max(broadcast, request + 1.5 s) + the slot wait', () => {
    // No broadcast: more than 4000 ms without a chunk, then the back-off.
    assert.deepEqual(turnedAwayAt(10000, -1, 0), { at: 14001, freed: false });
    // A broadcast soon after the request: 1.5 s after the request, plus the drawn wait.
    assert.deepEqual(turnedAwayAt(10000, 10200, 100), { at: 11600, freed: true });
    assert.deepEqual(turnedAwayAt(10000, 10000, 0), { at: 11500, freed: true });
    // A later broadcast: the broadcast plus the drawn wait.
    assert.deepEqual(turnedAwayAt(10000, 13000, 250), { at: 13250, freed: true });
    // A broadcast whose wait would end past the 4000 ms: the 4000 ms decide.
    assert.deepEqual(turnedAwayAt(10000, 13900, 200), { at: 14001, freed: false });
    // A shorter window (a connection with a short time-out).
    assert.deepEqual(turnedAwayAt(10000, -1, 0, 2000), { at: 12001, freed: false });
});

test('busy rule: a broadcast during the back-off ends it at broadcast + the slot wait, if earlier', () => {
    assert.deepEqual(backoffEndsAt(20000, -1, 0), { at: 20000, early: false });
    assert.deepEqual(backoffEndsAt(20000, 19000, 120), { at: 19120, early: true });
    assert.deepEqual(backoffEndsAt(20000, 19900, 100), { at: 20000, early: false });
    assert.deepEqual(backoffEndsAt(20000, 19950, 100), { at: 20000, early: false });
});

test('busy rule: the slot wait is uniform in [0, 250] ms, drawn from the given source', () => {
    assert.equal(slotFreeWaitMs(() => 0), 0);
    assert.equal(slotFreeWaitMs(() => 0.5), 125);
    assert.ok(slotFreeWaitMs(() => 0.999999) <= 250);
    const random = seededRandom(7);
    for (let i = 0; i < 1000; i++) {
        const wait = slotFreeWaitMs(random);
        assert.ok(wait >= 0 && wait <= 250, String(wait));
    }
});

test('busy rule: RetryBackoff counts every try, early ones too, and repeats itself for a seed', () => {
    const sequence = (seed) => {
        const backoff = new RetryBackoff(seededRandom(seed));
        const waits = [];
        for (let i = 0; i < 9; i++) {
            // A broadcast's slot wait drawn in between does not change the try number.
            if (i % 2) backoff.slotFreeWait();
            waits.push(backoff.nextWait());
        }
        return { waits, tries: backoff.tries };
    };
    const first = sequence(42);
    assert.deepEqual(sequence(42), first);
    assert.notDeepEqual(sequence(43).waits, first.waits);
    assert.equal(first.tries, 10);
    first.waits.forEach((wait, i) => {
        const ceiling = backoffCeilingMs(i + 2);
        assert.ok(wait >= ceiling / 2 && wait <= ceiling, `try ${i + 2}: ${wait} outside [${ceiling / 2}, ${ceiling}]`);
    });
    // Injected draws: the wait before try 2 at the low end, before try 3 at the middle.
    const draws = [0, 0.5];
    const backoff = new RetryBackoff(() => draws.shift());
    assert.deepEqual([backoff.nextWait(), backoff.nextWait()], [250, 750]);
    // seededRandom stays in [0, 1).
    const random = seededRandom(1);
    for (let i = 0; i < 10000; i++) {
        const x = random();
        assert.ok(x >= 0 && x < 1);
    }
});

test('a large answer is parsed without decoding its Base64 text, and exactly like JSON.parse', async () => {
    const { parseAnswer, DATA_BYTES, LARGE_ANSWER } = await import('../src/topics.js');
    const { base64DecodeBytes } = await import('../src/bytes.js');
    const raw = new Uint8Array(CHUNK_SIZE);
    let seed = 12345;
    for (let i = 0; i < raw.length; i++) raw[i] = (seed = (Math.imul(seed, 1103515245) + 12345) >>> 0) >>> 24;
    const chunk = encodeChunk({ file: 'background/ü "data" é.png', index: 1, totalChunks: 3, remainingFiles: 2, raw, now: 1700000000000 });
    assert.ok(chunk.data.length > LARGE_ANSWER);
    const body = (object) => new TextEncoder().encode(JSON.stringify(object));
    const envelope = { payload: chunk, subtype: '', type: 'ctx_chunk' };

    // The server's message: the fast path keeps the Base64 as bytes, and everything reads the same.
    const fast = parseAnswer(body(envelope), false);
    assert.ok(fast.payload[DATA_BYTES] instanceof Uint8Array, 'the fast path was taken');
    assert.equal(fast.payload[DATA_BYTES].length, chunk.data.length);
    assert.deepEqual(JSON.parse(JSON.stringify(fast)), { ...envelope, broadcast: false });
    assert.equal(fast.payload.data, chunk.data);
    const decoded = decodeChunk(fast.payload);
    assert.equal(decoded.valid, true);
    assert.deepEqual(decoded.bytes, raw);
    assert.equal(decoded.file, chunk.file);
    assert.equal(decoded.index, 1);

    // Whatever the cut cannot be sure of takes the whole parse, with the same outcome as JSON.parse.
    const corrupt = chunk.data.slice(0, 1000) + '*' + chunk.data.slice(1000);
    const cases = {
        'a second data key': body({ ...envelope, payload: { ...chunk, extra: { data: 'QUJD' } } }),
        'data in another object only': body({ ...envelope, payload: { ...chunk, data: undefined }, other: { data: chunk.data } }),
        'a key spelled with escapes': new TextEncoder().encode(JSON.stringify({ ...envelope, payload: { ...chunk, data: '' } }).replace('"data":""', '"\\u0064ata":""').replace('"type"', `"x":{"data":"${chunk.data}"},"type"`)),
        'space around the colon': new TextEncoder().encode(JSON.stringify(envelope).replace('"data":"', '"data" : "')),
        'data that is not text': body({ ...envelope, payload: { ...chunk, data: 5 }, pad: chunk.data }),
        'a data string ending a key': new TextEncoder().encode(JSON.stringify(envelope).replace('"file":', '"x\\"data":"y","file":')),
    };
    cases['an escape in the data'] = new TextEncoder().encode(JSON.stringify(envelope).replace(chunk.data.slice(0, 8), chunk.data.slice(0, 4) + '\\/' + chunk.data.slice(5, 8)));
    for (const [name, bytes] of Object.entries(cases)) {
        assert.ok(bytes.length >= LARGE_ANSWER, name);
        const packet = parseAnswer(bytes, true);
        assert.equal(packet.payload[DATA_BYTES], undefined, `${name}: whole parse`);
        const expected = JSON.parse(new TextDecoder().decode(bytes));
        assert.deepEqual(packet, { type: expected.type, subtype: expected.subtype ?? '', payload: expected.payload, broadcast: true }, name);
    }
    // A corrupt character in the bytes is skipped as the lenient decoder skips it: the same
    // bytes as decoding the text, and the MD5 check refuses the chunk all the same.
    const bad = parseAnswer(body({ ...envelope, payload: { ...chunk, data: corrupt } }), false);
    assert.ok(bad.payload[DATA_BYTES]);
    assert.deepEqual(decodeChunk(bad.payload).bytes, decodeChunk({ ...chunk, data: corrupt }).bytes);
    assert.equal(decodeChunk(bad.payload).valid, true);
    const flipped = chunk.data.slice(0, 1000) + (chunk.data[1000] === 'A' ? 'B' : 'A') + chunk.data.slice(1001);
    assert.equal(decodeChunk(parseAnswer(body({ ...envelope, payload: { ...chunk, data: flipped } }), false).payload).valid, false);
    // UTF-8 in the data bytes: skipped like the characters it encodes.
    const utf8 = new TextEncoder().encode('QU€JD\u00e9RA==');
    assert.deepEqual(base64DecodeBytes(utf8), base64Decode('QU€JD\u00e9RA=='));
    assert.deepEqual(base64DecodeBytes(new TextEncoder().encode('QUJD')), new Uint8Array([65, 66, 67]));
});

test('browsers decode well-formed Base64 straight from its bytes, and refuse the rest to the lenient path', async () => {
    const { strictBase64Bytes, base64DecodeBytes } = await import('../src/bytes.js');
    const ascii = (text) => new TextEncoder().encode(text);
    for (let length = 0; length < 40; length++) {
        const raw = new Uint8Array(length).map((_, i) => (i * 97 + length * 31) & 0xff);
        const text = Buffer.from(raw).toString('base64');
        assert.deepEqual(strictBase64Bytes(ascii(text)), raw, `length ${length}`);
        assert.deepEqual(base64DecodeBytes(ascii(text)), raw, `length ${length}`);
    }
    for (const text of ['QUJ', 'QUJDR', 'QU=D', 'QUJD=', 'QUJD====', 'Q===', 'QU\nJ', 'QUJ*', 'QUJDRA=\u00e9']) {
        assert.equal(strictBase64Bytes(ascii(text)), null, JSON.stringify(text));
        assert.deepEqual(base64DecodeBytes(ascii(text)), base64Decode(text), JSON.stringify(text));
    }
});
