#!/usr/bin/env node
// A small command line on the library, shaped like ctxsync: one JSON document per command on
// standard output (watch: one per line). Run from client/js after `npm ci`:
//
//   node examples/ctxsync.mjs --broker mqtt://127.0.0.1:1883 list
//   node examples/ctxsync.mjs --broker ws://127.0.0.1:8080/ pull /tmp/copy
//   node examples/ctxsync.mjs --broker mqtt://127.0.0.1:1883 push ../../tests/data/images/bg_640x284.png
//   node examples/ctxsync.mjs --broker mqtt://127.0.0.1:1883 status /tmp/copy
//   node examples/ctxsync.mjs --broker mqtt://127.0.0.1:1883 mv background/a.png background/b.png
//   node examples/ctxsync.mjs --broker mqtt://127.0.0.1:1883 rm background/b.png
//   node examples/ctxsync.mjs --broker mqtt://127.0.0.1:1883 replace /tmp/copy
//   node examples/ctxsync.mjs --broker mqtt://127.0.0.1:1883 watch
//   node examples/ctxsync.mjs --broker mqtt://127.0.0.1:1883 sync /tmp/copy
//
// Options: --broker URL, --username NAME, --password SECRET, --client-id ID, --topic-base BASE,
// --cafile FILE (TLS), --timeout SECONDS. Exit codes: 0 done, 1 failed, 2 bad arguments,
// 3 no broker, 4 time-out, 5 refused, 6 status: not in step.
import { readFile } from 'node:fs/promises';
import { connectClient } from '../src/node/index.js';

const args = process.argv.slice(2);
const options = { url: 'mqtt://127.0.0.1:1883' };
const positional = [];
for (let i = 0; i < args.length; i++) {
    const value = () => args[++i];
    switch (args[i]) {
        case '--broker': options.url = value(); break;
        case '--username': options.username = value(); break;
        case '--password': options.password = value(); break;
        case '--client-id': options.clientId = value(); break;
        case '--topic-base': options.topicBase = value(); break;
        case '--cafile': options.ca = await readFile(value()); break;
        case '--timeout': options.timeoutMs = Number(value()) * 1000; break;
        default: positional.push(args[i]);
    }
}
const [command, ...rest] = positional;
const print = (document) => process.stdout.write(JSON.stringify(document) + '\n');
const EXIT = { bad_arguments: 2, no_broker: 3, timeout: 4 };

let client;
try {
    client = await connectClient(options);
    let code = 0;
    switch (command) {
        case 'list': {
            const { files, contextHash } = await client.list();
            print({ files, context_hash: contextHash });
            break;
        }
        case 'status': {
            const s = await client.status(rest[0]);
            print({ in_step: s.inStep, server_hash: s.serverHash, local_hash: s.localHash, missing: s.missing, changed: s.changed, only_local: s.onlyLocal });
            code = s.inStep ? 0 : 6;
            break;
        }
        case 'pull': {
            const started = performance.now();
            const r = await client.pullInto(rest[0], { delete: rest.includes('--delete') });
            print({ pulled: r.pulled, deleted: r.deleted, failed: r.failed, bytes: r.bytes, in_step: r.inStep, transfer_ms: Math.round(performance.now() - started) });
            code = r.failed.length ? (r.failed.some((f) => f.refused) ? 5 : 1) : 0;
            break;
        }
        case 'push': {
            const r = await client.pushFiles(rest);
            print({ files: r.files, bytes: r.bytes, transfer_ms: r.transferMs });
            code = r.files.some((f) => f.refused) ? 5 : r.files.every((f) => f.ok) ? 0 : 1;
            break;
        }
        case 'rm': {
            const entries = await client.rm(rest);
            print({ entries });
            code = entries.some((e) => e.refused) ? 5 : entries.every((e) => e.ok) ? 0 : 1;
            break;
        }
        case 'mv': {
            const entry = await client.mv(rest[0], rest[1]);
            print({ entries: [entry] });
            code = entry.refused ? 5 : entry.ok ? 0 : 1;
            break;
        }
        case 'replace': {
            const r = await client.replaceFrom(rest[0]);
            print({ in_step: r.inStep, context_hash: r.contextHash, files: r.files });
            code = r.inStep ? 0 : 1;
            break;
        }
        case 'watch':
        case 'sync': {
            const controller = new AbortController();
            process.once('SIGINT', () => controller.abort());
            process.once('SIGTERM', () => controller.abort());
            if (command === 'watch') {
                const stop = client.watch((event) => print({ time: new Date().toISOString(), ...event, payload: undefined }));
                await new Promise((resolve) => controller.signal.addEventListener('abort', resolve));
                stop();
            } else {
                await client.sync(rest[0], { signal: controller.signal, onRound: (round) => print(round) });
            }
            break;
        }
        default:
            print({ error: `unknown command "${command ?? ''}"`, exit_code: 2 });
            code = 2;
    }
    process.exitCode = code;
} catch (error) {
    const code = EXIT[error.code] ?? 1;
    print({ error: error.message, exit_code: code });
    process.exitCode = code;
} finally {
    await client?.close();
}
