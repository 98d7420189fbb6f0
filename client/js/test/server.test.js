// The library in Node against the real context_sync_server, a real mosquitto and a websockify in
// front of it, side by side with the real ctxsync. The tests run one after the other on one
// server; each works on files of its own.
import { describe, test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { createHash } from 'node:crypto';
import { promises as fs } from 'node:fs';
import path from 'node:path';
import mqtt from 'mqtt';
import { connectClient, encodeChunk, EMPTY_MD5 } from '../src/node/index.js';
import { TestEnvironment, IMAGES_DIR, tempDir, eventually } from './harness.js';

const md5 = (bytes) => createHash('md5').update(bytes).digest('hex');
const PNG = path.join(IMAGES_DIR, 'bg_640x284.png');

let env;
const clients = [];

/** A valid background of `size` bytes: the test PNG with bytes after its end, seeded. */
async function variant(dir, name, size, seed) {
    const base = await fs.readFile(PNG);
    const bytes = Buffer.alloc(size);
    base.copy(bytes);
    let x = seed * 2654435761 + 1;
    for (let i = base.length; i < size; i++) {
        x = (x * 1103515245 + 12345) >>> 0;
        bytes[i] = x >>> 24;
    }
    const file = path.join(dir, name);
    await fs.writeFile(file, bytes);
    return file;
}

async function client(options = {}) {
    const c = await connectClient({ url: env.brokerUrl, timeoutMs: 10000, ...options });
    clients.push(c);
    return c;
}

/** Records every message published on the request topics (all clients). */
async function spyRequests() {
    const spy = mqtt.connect(env.brokerUrl, { clientId: `spy-${Math.random().toString(16).slice(2, 10)}` });
    const messages = [];
    spy.on('message', (topic, body) => messages.push({ client: topic.split('/').pop(), body: body.toString(), json: JSON.parse(body.toString()) }));
    await new Promise((resolve) => spy.on('connect', () => spy.subscribe('orvane/rr/context_sync/req/+', { qos: 1 }, resolve)));
    return { messages, close: () => new Promise((r) => spy.end(false, {}, r)) };
}

const disk = (relative) => fs.readFile(path.join(env.root, relative));
const onDisk = (relative) => fs.access(path.join(env.root, relative)).then(() => true, () => false);

before(async () => {
    env = await new TestEnvironment().start({ tls: true });
});

after(async () => {
    for (const c of clients) await c.close().catch(() => {});
    await env?.stop();
});

describe('transfers', () => {
    test('push of real images over TCP lands byte-identical on the server; what it may not keep is refused first', async () => {
        const c = await client();
        const images = ['bg_640x284.png', 'bg_640x284_baseline.jpg', 'bg_640x284_progressive.jpg', 'padded_1048576.png'];
        const result = await c.pushFiles([...images, 'bg_640x284.gif', 'bg_284x640.jpg'].map((n) => path.join(IMAGES_DIR, n)));
        assert.deepEqual(
            result.files.map((f) => [f.path, f.ok, f.refused]),
            [...images.map((n) => [`background/${n}`, true, false]), ['background/bg_640x284.gif', false, true], ['background/bg_284x640.jpg', false, true]],
        );
        assert.equal(result.files[4].error, 'not a valid background: format GIF not supported (JPEG or PNG only)');
        assert.equal(result.files[5].error, 'not a valid background: 284 x 640 pixels, not 640 x 284');
        for (const n of images) assert.deepEqual(await disk(`background/${n}`), await fs.readFile(path.join(IMAGES_DIR, n)), n);
        assert.equal(await onDisk('background/bg_640x284.gif'), false);
        assert.equal(result.bytes, (await Promise.all(images.map((n) => fs.stat(path.join(IMAGES_DIR, n))))).reduce((s, st) => s + st.size, 0));
    });

    test('pull over WebSocket through websockify is byte-identical and atomic (no temporary file left)', async () => {
        const c = await client({ url: env.wsUrl });
        const dir = await tempDir('ctxjs-pull');
        const { files } = await c.list();
        const result = await c.pullInto(dir);
        assert.deepEqual(result.failed, []);
        assert.deepEqual(result.pulled.sort(), Object.keys(files).sort());
        assert.equal(result.inStep, true);
        for (const relative of Object.keys(files)) assert.deepEqual(await fs.readFile(path.join(dir, relative)), await disk(relative), relative);
        assert.deepEqual((await fs.readdir(path.join(dir, 'background'))).sort(), Object.keys(files).map((p) => p.split('/')[1]).sort());
        const again = await c.pullInto(dir);
        assert.deepEqual(again.pulled, []);
        assert.equal(again.inStep, true);
    });

    test('a file pushed by the JS client is pulled by ctxsync identically, and the other way round', async () => {
        const source = await tempDir('ctxjs-src');
        const fromJs = await variant(source, 'from_js.png', 1_000_000, 1);
        const fromCtxsync = await variant(source, 'from_ctxsync.png', 700_000, 2);
        const c = await client({ url: env.wsUrl });
        const pushed = await c.pushFiles([fromJs]);
        assert.equal(pushed.files[0].ok, true, pushed.files[0].error);
        const ctxDir = await tempDir('ctxjs-ctxsync');
        const pulled = await env.ctxsync(['pull', ctxDir]);
        assert.equal(pulled.code, 0, pulled.stderr);
        assert.deepEqual(await fs.readFile(path.join(ctxDir, 'background/from_js.png')), await fs.readFile(fromJs));

        const ctxPush = await env.ctxsync(['push', fromCtxsync]);
        assert.equal(ctxPush.code, 0, ctxPush.stderr);
        const jsDir = await tempDir('ctxjs-js');
        const result = await c.pull(['background/from_ctxsync.png']);
        assert.equal(result.files[0].ok, true, result.files[0].error);
        assert.deepEqual(Buffer.from(result.data.get('background/from_ctxsync.png')), await fs.readFile(fromCtxsync));
        const intoDir = await c.pullInto(jsDir);
        assert.deepEqual(intoDir.failed, []);
        assert.deepEqual(await fs.readFile(path.join(jsDir, 'background/from_ctxsync.png')), await fs.readFile(fromCtxsync));
    });

    test('the chunks the JS client sends are the very messages ctxsync sends for the same file', async () => {
        const spy = await spyRequests();
        const source = await tempDir('ctxjs-same');
        const file = await variant(source, 'same_bytes.png', 1_030_000, 3);
        const ctxPush = await env.ctxsync(['--client-id', 'ctxsync-reference', 'push', file]);
        assert.equal(ctxPush.code, 0, ctxPush.stderr);
        await spy.close();
        const sent = spy.messages.filter((m) => m.client === 'ctxsync-reference' && m.json.type === 'ctx_chunk');
        assert.equal(sent.length, 3);
        const bytes = new Uint8Array(await fs.readFile(file));
        for (const message of sent) {
            const chunk = message.json.payload.message;
            const raw = bytes.subarray(chunk.chunk_index * 512000, (chunk.chunk_index + 1) * 512000);
            const ours = encodeChunk({ file: 'background/same_bytes.png', index: chunk.chunk_index, totalChunks: 3, remainingFiles: 0, raw, now: chunk.speed * 1000 });
            assert.deepEqual(ours, chunk);
            const envelope = JSON.stringify({ payload: { message: ours }, type: 'ctx_chunk' });
            assert.equal(envelope, message.body);
        }
    });
});

describe('connecting', () => {
    test('TLS with user name and password: the right CA and password connect; a wrong one is refused', async () => {
        const url = `mqtts://127.0.0.1:${env.tlsPort}`;
        const ca = await fs.readFile(env.tls.ca);
        const c = await client({ url, ca, username: 'tablet-1', password: 'secret-1', clientId: 'tablet-1' });
        assert.equal(c.serviceStatus, 'online');
        const { contextHash } = await c.list();
        assert.equal(contextHash, JSON.parse((await env.ctxsync(['--json', 'list'])).stdout).context_hash);
        await assert.rejects(connectClient({ url, ca, username: 'tablet-1', password: 'wrong', timeoutMs: 5000 }), {
            code: 'no_broker',
            message: new RegExp(`^cannot connect to the broker at ${url}: Connection refused: Not authorized$`),
        });
        await assert.rejects(connectClient({ url, ca: await fs.readFile(env.tls.otherCa), username: 'tablet-1', password: 'secret-1', timeoutMs: 5000 }), {
            code: 'no_broker',
            message: /^cannot connect to the broker at mqtts:\/\/127\.0\.0\.1:\d+: self[- ]signed certificate|unable to verify|certificate/,
        });
    });

    test('WebSocket over TLS through websockify: pull byte for byte with the test CA', async () => {
        const c = await client({ url: env.wssUrl, ca: await fs.readFile(env.tls.ca) });
        assert.equal(c.serviceStatus, 'online');
        const result = await c.pull(['background/bg_640x284.png']);
        assert.equal(result.files[0].ok, true, result.files[0].error);
        assert.deepEqual(Buffer.from(result.data.get('background/bg_640x284.png')), await fs.readFile(PNG));
        await assert.rejects(connectClient({ url: env.wssUrl, ca: await fs.readFile(env.tls.otherCa), timeoutMs: 5000 }), { code: 'no_broker' });
    });

    test('a broker that is not there is reported as such', async () => {
        await assert.rejects(connectClient({ url: 'mqtt://127.0.0.1:1', timeoutMs: 3000 }), {
            code: 'no_broker',
            message: 'cannot connect to the broker at mqtt://127.0.0.1:1: connect ECONNREFUSED 127.0.0.1:1',
        });
        await assert.rejects(connectClient({ url: env.brokerUrl, clientId: 'all' }), { code: 'bad_arguments' });
    });
});

describe('checks', () => {
    test('a corrupt chunk is not acknowledged by the server and nothing reaches its disk', async () => {
        const c = await client();
        const good = new Uint8Array(await fs.readFile(PNG));
        const corrupt = encodeChunk({ file: 'background/corrupt.png', index: 0, totalChunks: 1, remainingFiles: 0, raw: good });
        corrupt.hash = md5(Buffer.from('something else'));
        const acks = [];
        c.connection.on('packet', (p) => p.type === 'ctx_chunk_ack' && acks.push(p.payload));
        await c.connection.send('ctx_chunk', corrupt);
        // A good chunk after it: its acknowledgement shows that the server has handled both.
        const result = await c.push([{ path: 'background/after_corrupt.png', bytes: good }]);
        assert.equal(result.files[0].ok, true);
        assert.deepEqual(acks, [{ chunkIndex: 0, file: 'background/after_corrupt.png' }]);
        assert.equal(await onDisk('background/corrupt.png'), false);
        assert.equal(await onDisk('background/after_corrupt.png'), true);
    });

    test('a corrupt chunk from the server is not acknowledged by the client and its file fails', async () => {
        const c = await client({ clientId: 'ctxjs-victim' });
        const fake = mqtt.connect(env.brokerUrl, { clientId: 'ctxjs-fake-server' });
        await new Promise((resolve) => fake.on('connect', () => fake.subscribe('orvane/rr/context_sync/req/ctxjs-victim', { qos: 1 }, resolve)));
        const requests = [];
        const raw = new Uint8Array(await fs.readFile(PNG));
        fake.on('message', (_topic, body) => {
            const json = JSON.parse(body.toString());
            requests.push(json.type);
            if (json.type !== 'ctx_download_request') return;
            const chunk = encodeChunk({ file: 'background/not_there.png', index: 0, totalChunks: 1, remainingFiles: 0, raw });
            chunk.data = chunk.data.slice(0, 100) + 'AAAA' + chunk.data.slice(104);
            fake.publish('orvane/rr/context_sync/res/ctxjs-victim', JSON.stringify({ payload: chunk, subtype: '', type: 'ctx_chunk' }), { qos: 1 });
        });
        const dir = await tempDir('ctxjs-corrupt');
        const result = await c.pullInto(dir, { server: { 'background/not_there.png': md5(raw) }, deadline: Date.now() + 8000 });
        await new Promise((r) => fake.end(false, {}, r));
        assert.equal(result.failed.length, 1);
        assert.match(result.failed[0].error, /^chunk 0 failed its MD5 check \(expected [0-9a-f]{32}, decoded data has [0-9a-f]{32}\)$/);
        assert.equal(requests.includes('ctx_chunk_ack'), false);
        assert.deepEqual(await fs.readdir(dir).catch(() => []), []);
    });

    test('path escapes are refused before anything is sent', async () => {
        const c = await client({ clientId: 'ctxjs-escapes' });
        const spy = await spyRequests();
        const bytes = new Uint8Array(await fs.readFile(PNG));
        const pushed = await c.push([
            { path: '../outside.png', bytes },
            { path: '/etc/outside.png', bytes },
            { path: 'background/a\\b.png', bytes },
            { path: 'background/./x.png', bytes },
            { path: 'background/x\u0001.png', bytes },
        ]);
        assert.deepEqual(pushed.files.map((f) => f.error), [
            'unsafe path "../outside.png" refused: contains a \'..\' segment',
            'unsafe path "/etc/outside.png" refused: is absolute',
            'unsafe path "background/a\\b.png" refused: contains a backslash',
            'unsafe path "background/./x.png" refused: contains a \'.\' segment',
            'unsafe path "background/x\u0001.png" refused: contains a control character',
        ]);
        assert.ok(pushed.files.every((f) => f.refused && !f.ok));
        const toOutside = await c.pushFiles([PNG], { to: '../' });
        assert.equal(toOutside.files[0].refused, true);
        assert.deepEqual((await c.rm(['../../etc/passwd'])).map((e) => e.refused), [true]);
        assert.equal((await c.mv('background/bg_640x284.png', '../bg.png')).refused, true);
        const pulled = await c.pull({ '../secret': EMPTY_MD5.replace('d', 'e'), 'background/../../x': EMPTY_MD5 });
        assert.deepEqual(pulled.files.map((f) => f.refused), [true, true]);
        await assert.rejects(c.replace({ '../x.png': EMPTY_MD5 }), { code: 'bad_arguments' });
        // A folder that leads outside the destination through a link.
        const dir = await tempDir('ctxjs-link');
        const outside = await tempDir('ctxjs-outside');
        await fs.symlink(outside, path.join(dir, 'background'));
        const linked = await c.pullInto(dir, { server: { 'background/bg_640x284.png': md5(bytes) } });
        assert.equal(linked.failed.length, 1);
        assert.equal(linked.failed[0].refused, true);
        assert.match(linked.failed[0].error, /^"background\/bg_640x284.png" refused: its folder leads outside /);
        assert.deepEqual(await fs.readdir(outside), []);
        await spy.close();
        assert.deepEqual(spy.messages.filter((m) => m.client === 'ctxjs-escapes'), []);
    });

    test("the context hash equals the server's and ctxsync's", async () => {
        const c = await client();
        const listed = JSON.parse((await env.ctxsync(['--json', 'list'])).stdout);
        const { files, contextHash } = await c.list();
        assert.deepEqual(files, listed.files);
        assert.equal(contextHash, listed.context_hash);
        assert.equal(await c.serverHash(), contextHash);
        const dir = await tempDir('ctxjs-status');
        await fs.cp(path.join(env.root, 'background'), path.join(dir, 'background'), { recursive: true });
        await fs.writeFile(path.join(dir, 'background/local_only.png'), 'x');
        const ours = await c.status(dir);
        const theirs = JSON.parse((await env.ctxsync(['--json', 'status', dir])).stdout);
        assert.equal(ours.localHash, theirs.local_hash);
        assert.equal(ours.serverHash, theirs.server_hash);
        assert.deepEqual(ours.onlyLocal, theirs.only_local);
        assert.equal(ours.inStep, false);
    });
});

describe('changes', () => {
    test('mv, rm and replace reach the disk', async () => {
        const c = await client();
        const source = await tempDir('ctxjs-changes');
        const a = await variant(source, 'change_a.png', 3000, 11);
        const b = await variant(source, 'change_b.png', 4000, 12);
        assert.ok((await c.pushFiles([a, b])).files.every((f) => f.ok));
        const moved = await c.mv('background/change_a.png', 'background/change_moved.png');
        assert.equal(moved.ok, true, moved.error);
        assert.deepEqual(await disk('background/change_moved.png'), await fs.readFile(a));
        assert.equal(await onDisk('background/change_a.png'), false);
        const exists = await c.mv('background/change_moved.png', 'background/change_b.png');
        assert.equal(exists.ok, false);
        assert.equal(exists.error, 'background/change_b.png exists already on the server');
        const removed = await c.rm(['background/change_b.png', 'background/never_there.png']);
        assert.deepEqual(removed.map((e) => [e.ok, e.error]), [[true, ''], [false, 'the server has no such file']]);
        assert.equal(await onDisk('background/change_b.png'), false);

        // The wanted tree: one file the server has under another name, one it lacks.
        const wanted = await tempDir('ctxjs-wanted');
        await fs.mkdir(path.join(wanted, 'background'));
        await fs.copyFile(a, path.join(wanted, 'background/kept_a.png'));
        await variant(path.join(wanted, 'background'), 'new_c.png', 5000, 13);
        const replaced = await c.replaceFrom(wanted);
        assert.equal(replaced.inStep, true);
        assert.deepEqual((await fs.readdir(path.join(env.root, 'background'))).sort(), ['kept_a.png', 'new_c.png']);
        assert.deepEqual(await disk('background/kept_a.png'), await fs.readFile(a));
        assert.deepEqual(await disk('background/new_c.png'), await fs.readFile(path.join(wanted, 'background/new_c.png')));
    });

    test('sync follows a change made by ctxsync: a new file arrives, a removed one goes; watch sees the lists', async () => {
        const c = await client({ url: env.wsUrl });
        const watcher = await client();
        const events = [];
        const stopWatching = watcher.watch((event) => events.push(event));
        const dir = await tempDir('ctxjs-sync');
        const controller = new AbortController();
        const rounds = [];
        const running = c.sync(dir, { signal: controller.signal, onRound: (r) => rounds.push(r) });
        try {
            assert.ok(await eventually(async () => (await fs.readdir(path.join(dir, 'background')).catch(() => [])).length === 2), 'first round');
            const source = await tempDir('ctxjs-sync-src');
            const file = await variant(source, 'synced.png', 600_000, 21);
            assert.equal((await env.ctxsync(['push', file])).code, 0);
            assert.ok(await eventually(async () => (await fs.readFile(path.join(dir, 'background/synced.png')).catch(() => Buffer.alloc(0))).equals(await fs.readFile(file)), 15000), 'new file');
            assert.equal((await env.ctxsync(['rm', 'background/kept_a.png'])).code, 0);
            assert.ok(await eventually(() => fs.access(path.join(dir, 'background/kept_a.png')).then(() => false, () => true), 15000), 'removed file');
            assert.deepEqual((await fs.readdir(path.join(dir, 'background'))).sort(), ['new_c.png', 'synced.png']);
        } finally {
            controller.abort();
            await running;
        }
        assert.ok(rounds.length >= 3);
        assert.ok(rounds.every((r) => r.failed.length === 0));
        stopWatching();
        const final = await watcher.list();
        const lists = events.filter((e) => e.type === 'ctx_list' && e.broadcast);
        assert.ok(lists.some((e) => 'background/synced.png' in e.files && !('background/kept_a.png' in e.files)));
        assert.equal(lists.at(-1).contextHash, final.contextHash);
    });

    test('busy server: twelve concurrent pulls all succeed, some after waiting', async () => {
        const source = await tempDir('ctxjs-busy');
        const files = [await variant(source, 'busy_1.png', 900_000, 31), await variant(source, 'busy_2.png', 900_000, 32)];
        const c = await client();
        assert.ok((await c.pushFiles(files)).files.every((f) => f.ok));
        const { files: server } = await c.list();
        const pullers = await Promise.all(Array.from({ length: 12 }, (_, i) => client({ clientId: `ctxjs-busy-${i}` })));
        const results = await Promise.all(pullers.map((p) => p.pull(Object.keys(server), { deadline: Date.now() + 45000 })));
        for (const result of results) {
            assert.deepEqual(result.files.filter((f) => !f.ok), []);
            for (const file of files) assert.deepEqual(Buffer.from(result.data.get(`background/${path.basename(file)}`)), await fs.readFile(file));
        }
        // The server serves ten downloading clients at a time: at least two had to ask again.
        assert.ok(results.filter((r) => r.tries > 1).length >= 2, `tries: ${results.map((r) => r.tries)}`);
    });

    test('a full server: a list broadcast frees the request early (at once, then ending a back-off), and every try counts', async () => {
        // A stand-in server under a topic base of its own on the same broker: it ignores the
        // first two download requests, as a server with ten clients does, and serves the third.
        const base = 'busytest';
        const service = `${base}/rr/context_sync`;
        const raw = new Uint8Array(await fs.readFile(PNG));
        const file = 'background/slot.png';
        const list = { [file]: md5(raw) };
        const standIn = mqtt.connect(env.brokerUrl, { clientId: 'ctxjs-stand-in' });
        await new Promise((resolve) => standIn.on('connect', () => standIn.subscribe(`${service}/req/ctxjs-turned-away`, { qos: 1 }, resolve)));
        const answer = (topic, type, payload) => standIn.publish(topic, JSON.stringify({ payload, subtype: '', type }), { qos: 1 });
        const broadcastList = () => answer(`${service}/bcast`, 'ctx_list', list);
        const received = [];
        let downloads = 0;
        standIn.on('message', (_topic, body) => {
            const json = JSON.parse(body.toString());
            received.push(json.type);
            if (json.type === 'ctx_request') answer(`${service}/res/ctxjs-turned-away`, 'ctx_list', list);
            if (json.type !== 'ctx_download_request') return;
            downloads++;
            // Another client's batch ends while the first request waits.
            if (downloads === 1) broadcastList();
            if (downloads === 3) answer(`${service}/res/ctxjs-turned-away`, 'ctx_chunk', encodeChunk({ file, index: 0, totalChunks: 1, remainingFiles: 0, raw }));
        });
        let result;
        const retries = [];
        try {
            const c = await client({ clientId: 'ctxjs-turned-away', topicBase: base });
            // The random draws in order: the wait after the first broadcast, the back-off before
            // try 2 (not taken), the back-off before try 3, the wait after the second broadcast.
            const draws = [0, 0.5, 0.999, 0];
            result = await c.pull({ [file]: md5(raw) }, {
                random: () => draws.shift() ?? 0,
                deadline: Date.now() + 30000,
                onRetry: (retry) => {
                    retries.push(retry);
                    // During the back-off before try 3, a slot comes free again.
                    if (retry.attempt === 3) broadcastList();
                },
            });
            assert.ok(await eventually(() => received.includes('ctx_chunk_ack')), 'acknowledgement');
        } finally {
            await new Promise((r) => standIn.end(false, {}, r));
        }
        assert.deepEqual(result.files, [{ path: file, ok: true, refused: false, missing: false, error: '' }]);
        assert.deepEqual(Buffer.from(result.data.get(file)), Buffer.from(raw));
        // Try 2 at once after the broadcast; try 3 after the back-off of try 3 (500 + 0.999 x 500
        // ms: try 2 counted), which the second broadcast ended early.
        assert.deepEqual(retries, [
            { attempt: 2, waitMs: 0, reason: "another client's batch ended before any chunk came" },
            { attempt: 3, waitMs: 999.5, reason: 'no chunk within 4000 ms' },
        ]);
        assert.equal(result.tries, 3);
        assert.equal(result.earlyTries, 2);
        assert.deepEqual(received, [
            'ctx_request', 'ctx_download_request',
            'ctx_request', 'ctx_download_request',
            'ctx_request', 'ctx_download_request',
            'ctx_chunk_ack',
        ]);
    });

    test("the server's Will (\"offline\") ends a transfer at once", async () => {
        const c = await client();
        const { files } = await c.list();
        let killed = false;
        const result = await c.pull(files, {
            deadline: Date.now() + 60000,
            onProgress: () => {
                if (!killed) {
                    killed = true;
                    env.server.kill('SIGKILL');
                }
            },
        });
        assert.equal(killed, true);
        assert.equal(result.ended, 'offline');
        assert.equal(c.serviceStatus, 'offline');
        assert.ok(result.files.some((f) => !f.ok && f.error === 'the server went offline'));
    });
});
