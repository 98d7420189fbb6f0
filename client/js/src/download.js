// Downloads files of the server's tree: one download request per try, then the server's chunks
// as they come (one file after the other, one chunk at a time). Each chunk is decoded and checked
// against its MD5 before it is acknowledged; a complete file is handed to the sink only when the
// MD5 of the whole file equals the hash of the server's list. A chunk that fails its check is not
// acknowledged (the server then gives the file up) and its file fails.
//
// Busy server: it serves at most ten downloading clients and drops the request of an eleventh
// without an answer. A try that gets no chunk of its own within 4000 ms, or whose batch ends (a
// `ctx_list` broadcast) before any of its chunks came, is tried again after the back-off of
// backoff.js, until the caller's deadline. Files that did not come are looked up in a fresh list
// after each try: only those that the list no longer holds are reported missing; those whose hash
// changed are asked for with the new hash. The server's "offline" (its Will on the retained status
// topic), a lost connection or a `ctx_stop_transfer` end the transfer at once.
import { decodeChunk, encodeAck } from './chunk.js';
import { Md5, EMPTY_MD5 } from './md5.js';
import { unsafePathReason } from './paths.js';
import { BUSY_FIRST_CHUNK_MS, backoffDelayMs, sleep } from './backoff.js';
import { requestList } from './requests.js';

/** How long the end of the server's batch (its list broadcast) may precede a last chunk. */
export const END_GRACE_MS = 1500;

/**
 * Where downloaded files go. check() refuses a path before anything is asked for (return the
 * reason) and store() keeps a complete, verified file (return an error text when it cannot).
 * @typedef {object} DownloadSink
 * @property {(path: string) => (string | null | Promise<string | null>)} check
 * @property {(path: string, parts: Uint8Array[], md5: string) => (string | null | Promise<string | null>)} store
 */

/**
 * @typedef {object} FileResult
 * @property {string} path
 * @property {boolean} ok
 * @property {boolean} refused the path was refused before anything was asked for or written
 * @property {boolean} missing the server's fresh list no longer holds the file
 * @property {string} error "" when ok
 */

/**
 * @typedef {object} DownloadResult
 * @property {FileResult[]} files in the order asked for
 * @property {number} bytes bytes of verified chunks received
 * @property {number} tries download requests sent
 * @property {'offline' | 'stopped' | 'connection_lost' | ''} ended why the transfer ended early
 */

/**
 * @typedef {object} DownloadOptions
 * @property {number} [deadline] Date.now() value after which no try starts (default: now + 120 s)
 * @property {number} [timeoutMs] longest silence of the server within a try (default: the connection's)
 * @property {AbortSignal} [signal]
 * @property {(progress: {bytes: number, filesDone: number, filesTotal: number, current: string}) => void} [onProgress]
 */

/** Memory sink: keeps each file as one Uint8Array. */
export class MemorySink {
    constructor() {
        /** @type {Map<string, Uint8Array>} */
        this.files = new Map();
    }

    check(path) {
        return unsafePathReason(path) ? `unsafe path "${path}" refused: ${unsafePathReason(path)}` : null;
    }

    store(path, parts) {
        let total = 0;
        for (const part of parts) total += part.length;
        const out = new Uint8Array(total);
        let offset = 0;
        for (const part of parts) {
            out.set(part, offset);
            offset += part.length;
        }
        this.files.set(path, out);
        return null;
    }
}

/**
 * Downloads `files` (relative path to the MD5 of the server's list) into `sink`.
 * @param {import('./connection.js').ContextSyncConnection} connection
 * @param {Record<string, string>} files
 * @param {DownloadSink} sink
 * @param {DownloadOptions} [options]
 * @returns {Promise<DownloadResult>}
 */
export async function downloadFiles(connection, files, sink, options = {}) {
    const deadline = options.deadline ?? Date.now() + 120000;
    const timeoutMs = options.timeoutMs ?? connection.timeoutMs;
    const expected = { ...files };
    const order = Object.keys(files);
    /** @type {Map<string, FileResult>} */
    const results = new Map();
    const done = (path, ok, error = '', extra = {}) =>
        results.set(path, { path, ok, refused: false, missing: false, error, ...extra });
    const progress = { bytes: 0, filesDone: 0, filesTotal: order.length, current: '' };
    let pending = [];
    for (const path of order) {
        const refusal = (unsafePathReason(path) ? `unsafe path "${path}" refused: ${unsafePathReason(path)}` : null) ?? (await sink.check(path));
        if (refusal) {
            connection.log(3, refusal);
            done(path, false, refusal, { refused: true });
        } else if (expected[path] === EMPTY_MD5) {
            // The chunk format has no message for an empty file: the list says all there is.
            const error = await sink.store(path, [], EMPTY_MD5);
            done(path, !error, error ?? '');
        } else {
            pending.push(path);
        }
    }

    let tries = 0;
    let ended = '';
    let lastReason = '';
    for (let attempt = 1; pending.length && !options.signal?.aborted; attempt++) {
        if (attempt > 1) {
            const wait = backoffDelayMs(attempt);
            if (Date.now() + wait >= deadline) break;
            connection.log(4, `download: try ${attempt} of ${pending.length} file(s) in ${Math.round(wait)} ms`);
            await sleep(wait, options.signal);
            if (options.signal?.aborted) break;
        }
        tries++;
        const outcome = await runBatch(connection, pending, expected, sink, results, progress, timeoutMs, options);
        pending = pending.filter((path) => !results.has(path) || results.get(path).retry);
        for (const path of pending) results.delete(path);
        if (outcome.ended) {
            ended = outcome.ended;
            lastReason = outcome.reason;
            break;
        }
        lastReason = outcome.reason;
        if (!pending.length) break;
        // Only a fresh list tells a file that is not coming from a busy server.
        const list = await requestList(connection, { timeoutMs: Math.min(timeoutMs, 3000) }).catch(() => null);
        if (list) {
            pending = pending.filter((path) => {
                if (path in list) {
                    expected[path] = list[path];
                    return true;
                }
                done(path, false, 'the server no longer has the file', { missing: true });
                return false;
            });
        }
        if (Date.now() >= deadline) break;
    }
    for (const path of pending)
        done(path, false, lastReason || 'the server did not send the file before the deadline');
    const outcome = order.map((path) => {
        const { ok, refused, missing, error } = results.get(path);
        return { path, ok, refused, missing, error };
    });
    return { files: outcome, bytes: progress.bytes, tries, ended };
}

/**
 * One try: one download request, then chunks until every file is done, the batch ends, the server
 * is busy or silent, or the transfer is ended.
 */
function runBatch(connection, paths, expected, sink, results, progress, timeoutMs, options) {
    const wanted = new Set(paths);
    return new Promise((resolve) => {
        const start = Date.now();
        let gotAny = false;
        let lastActivity = start;
        let endSeen = -1;
        /** @type {null | {path: string, total: number, next: number, parts: Uint8Array[], md5: Md5}} */
        let active = null;
        let queue = Promise.resolve();
        let finished = false;

        const fail = (path, error, retry = false) => {
            connection.log(3, `${path}: ${error}`);
            results.set(path, { path, ok: false, refused: false, missing: false, error, retry });
        };
        const remaining = () => paths.filter((path) => !results.has(path)).length;
        const finish = (outcome) => {
            if (finished) return;
            finished = true;
            clearInterval(timer);
            offPacket();
            offStatus();
            offLost();
            options.signal?.removeEventListener('abort', onAbort);
            queue.then(() => {
                if (active) fail(active.path, outcome.reason || 'the transfer ended before the file was complete', !outcome.ended);
                resolve(outcome);
            });
        };
        const check = () => {
            const now = Date.now();
            if (!remaining()) return finish({ reason: '' });
            if (!gotAny && (endSeen >= 0 || now - start > BUSY_FIRST_CHUNK_MS))
                return finish({ busy: true, reason: 'the server is busy (no chunk came for the request)' });
            if (gotAny && endSeen >= 0 && now - endSeen > END_GRACE_MS)
                return finish({ reason: 'the server ended the batch without sending the file (missing or unreadable there)' });
            if (now - lastActivity > timeoutMs) return finish({ reason: `no data from the server for ${timeoutMs} ms` });
        };

        const onChunk = async (chunk) => {
            const decoded = decodeChunk(chunk);
            const path = decoded.file;
            const index = decoded.index;
            if (!wanted.has(path) || results.has(path)) {
                connection.log(3, `Chunk ${index} of ${path} was not asked for, ignored`);
                return;
            }
            gotAny = true;
            lastActivity = Date.now();
            endSeen = -1;
            if (!decoded.valid) {
                if (active?.path === path) active = null;
                fail(path, `chunk ${index} failed its MD5 check (expected ${decoded.hash}, decoded data has ${decoded.actualHash})`);
                return;
            }
            if (active && active.path !== path) {
                fail(active.path, `the server moved on to ${path} before the file was complete`, true);
                active = null;
            }
            if (!active) {
                if (index !== 0 || decoded.totalChunks < 1) {
                    fail(path, `the transfer began with chunk ${index} of ${decoded.totalChunks}`, true);
                    return;
                }
                active = { path, total: decoded.totalChunks, next: 0, parts: [], md5: new Md5() };
            }
            if (index < active.next) {
                // A repeated chunk: acknowledged again, stored once.
                connection.send('ctx_chunk_ack', encodeAck(path, index)).catch(() => {});
                return;
            }
            if (index > active.next) {
                fail(path, `chunk ${index} came before chunk ${active.next}`, true);
                active = null;
                return;
            }
            active.parts.push(decoded.bytes);
            active.md5.append(decoded.bytes);
            active.next++;
            connection.send('ctx_chunk_ack', encodeAck(path, index)).catch(() => {});
            progress.bytes += decoded.bytes.length;
            progress.current = path;
            if (active.next === active.total) {
                const file = active;
                active = null;
                const md5 = file.md5.hex();
                if (md5 !== expected[path]) {
                    fail(path, `the file's MD5 ${md5} differs from the list's ${expected[path]}`, true);
                } else {
                    const error = await sink.store(path, file.parts, md5);
                    if (error) fail(path, error);
                    else results.set(path, { path, ok: true, refused: false, missing: false, error: '' });
                }
                progress.filesDone++;
            }
            options.onProgress?.({ ...progress });
        };

        const offPacket = connection.on('packet', (packet) => {
            if (packet.type === 'ctx_chunk' && !packet.broadcast) {
                queue = queue.then(() => onChunk(packet.payload)).then(check, (error) => connection.log(2, String(error)));
            } else if (packet.type === 'ctx_stop_transfer') {
                finish({ ended: 'stopped', reason: 'the server stopped all transfers before the file arrived' });
            } else if (packet.type === 'ctx_list' && packet.broadcast) {
                // The server broadcasts its list when a client's batch ends; it may also be
                // another client's batch or a change of the tree, so a later chunk of ours
                // cancels it.
                endSeen = Date.now();
                queue = queue.then(check);
            }
        });
        const offStatus = connection.on('status', (status) => {
            if (status === 'offline') finish({ ended: 'offline', reason: 'the server went offline' });
        });
        const offLost = connection.on('connection_lost', () =>
            finish({ ended: 'connection_lost', reason: 'the connection to the broker was lost' }));
        const onAbort = () => finish({ ended: 'stopped', reason: 'cancelled' });
        options.signal?.addEventListener('abort', onAbort);
        const timer = setInterval(check, 100);
        if (connection.serviceStatus === 'offline') return finish({ ended: 'offline', reason: 'the server is offline' });
        connection.send('ctx_download_request', paths).catch((error) =>
            finish({ ended: 'connection_lost', reason: error.message }));
    });
}
