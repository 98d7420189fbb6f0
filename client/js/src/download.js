// Downloads files of the server's tree: one download request per try, then the server's chunks
// as they come (one file after the other, one chunk at a time). Each chunk is decoded and checked
// against its MD5 before it is acknowledged; a complete file is handed to the sink only when the
// MD5 of the whole file equals the hash of the server's list. A chunk that fails its check is not
// acknowledged (the server then gives the file up) and its file fails.
//
// Busy server: it serves at most ten downloading clients and drops the request of an eleventh
// without an answer. The rule of backoff.js decides when a request with no chunk yet counts as
// turned away (no chunk within 4000 ms, or a `ctx_list` broadcast ahead of any chunk: then at
// max(broadcast, request + 1.5 s) + 0..250 ms, asked again at once) and how long to wait before
// asking again otherwise (the randomised back-off, which a broadcast ends early), until the
// caller's deadline. The list is asked for with every try: a file that the freshest list no longer
// holds is reported missing, and only those; one whose hash changed is asked for with the new
// hash. A chunk that comes during the back-off means that the last request was served after all:
// that batch is followed instead. A batch that was served and ended without a listed file fails
// that file (the server could not read it; asking again at once would only have it skipped
// again). The server's "offline" (its Will on the retained status topic), a lost connection or a
// `ctx_stop_transfer` end the transfer at once.
import { decodeChunk, encodeAck } from './chunk.js';
import { Md5, EMPTY_MD5 } from './md5.js';
import { unsafePathReason } from './paths.js';
import { BUSY_FIRST_CHUNK_MS, RetryBackoff, turnedAwayAt, backoffEndsAt } from './backoff.js';
import { filesFromPayload } from './tree.js';

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
 * @property {number} earlyTries tries asked before their back-off was over because a list broadcast
 *   said that a slot was free (and that were not served after all)
 * @property {'offline' | 'stopped' | 'connection_lost' | ''} ended why the transfer ended early
 */

/**
 * @typedef {object} DownloadOptions
 * @property {number} [deadline] Date.now() value after which no try starts (default: now + 120 s)
 * @property {number} [timeoutMs] longest silence of the server within a try (default: the connection's)
 * @property {AbortSignal} [signal]
 * @property {() => number} [random] the source of the random waits, numbers in [0, 1) (default
 *   Math.random; backoff.js's seededRandom(seed) repeats a run)
 * @property {(retry: {attempt: number, waitMs: number, reason: string}) => void} [onRetry] called
 *   before each wait for another try
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
    const busyWindowMs = Math.min(BUSY_FIRST_CHUNK_MS, timeoutMs);
    const expected = { ...files };
    const order = Object.keys(files);
    /** @type {Map<string, FileResult>} */
    const results = new Map();
    const done = (path, ok, error = '', extra = {}) =>
        results.set(path, { path, ok, refused: false, missing: false, error, ...extra });
    const progress = { bytes: 0, filesDone: 0, filesTotal: order.length, current: '' };
    /** @type {string[]} */
    const wanted = [];
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
            wanted.push(path);
        }
    }

    let tries = 0;
    let earlyTries = 0;
    let ended = '';
    if (wanted.length) {
        const outcome = await transfer(connection, wanted, expected, sink, results, progress, {
            deadline, timeoutMs, busyWindowMs, options,
        });
        tries = outcome.tries;
        earlyTries = outcome.earlyTries;
        ended = outcome.ended;
    }
    const outcome = order.map((path) => {
        const { ok, refused, missing, error } = results.get(path);
        return { path, ok, refused, missing, error };
    });
    return { files: outcome, bytes: progress.bytes, tries, earlyTries, ended };
}

/**
 * The tries of one download: requests, chunks, the busy rule and the back-off. Every path of
 * `wanted` has its result in `results` when it resolves.
 */
async function transfer(connection, wanted, expected, sink, results, progress, limits) {
    const { deadline, timeoutMs, busyWindowMs, options } = limits;
    const known = new Set(wanted);
    const backoff = new RetryBackoff(options.random);
    const aborted = () => Boolean(options.signal?.aborted);

    // What the server has shown since the last request.
    let served = false;
    let endSeen = -1;
    let slotFree = -1;
    let slotJitter = 0;
    let lastActivity = Date.now();
    /** @type {Record<string, string> | null} */
    let fresh = null;
    let stopped = false;
    let gone = connection.serviceStatus === 'offline';
    let lost = '';
    /** @type {null | {path: string, total: number, next: number, parts: Uint8Array[], md5: Md5}} */
    let active = null;
    /** Files complete and verified, being handed to the sink. */
    const storing = new Set();
    let stores = Promise.resolve();
    let wake = () => {};

    const fail = (path, error) => {
        if (active?.path === path) active = null;
        connection.log(3, `${path}: ${error}`);
        results.set(path, { path, ok: false, refused: false, missing: false, error });
    };
    const pending = () => wanted.filter((path) => !results.has(path) && !storing.has(path));
    const ack = (path, index) => connection.send('ctx_chunk_ack', encodeAck(path, index)).catch(() => {});

    const onChunk = (chunk) => {
        const decoded = decodeChunk(chunk);
        const path = decoded.file;
        const index = decoded.index;
        if (decoded.valid && results.get(path)?.ok) {
            // A second request, sent while the first was served after all, has the server send
            // the file again: acknowledged, so that the server moves on at once.
            ack(path, index);
            return;
        }
        if (!known.has(path) || results.has(path) || storing.has(path)) {
            connection.log(3, `Chunk ${index} of ${path} was not asked for, ignored`);
            return;
        }
        served = true;
        lastActivity = Date.now();
        endSeen = -1;
        if (!decoded.valid) {
            fail(path, `chunk ${index} failed its MD5 check (expected ${decoded.hash}, decoded data has ${decoded.actualHash})`);
            return;
        }
        if (active && active.path !== path) fail(active.path, `the server moved on to ${path} before the file was complete`);
        if (!active) {
            if (index !== 0 || decoded.totalChunks < 1) {
                fail(path, `the transfer began with chunk ${index} of ${decoded.totalChunks}`);
                return;
            }
            active = { path, total: decoded.totalChunks, next: 0, parts: [], md5: new Md5() };
        }
        if (index > active.next) {
            fail(path, `chunk ${index} came before chunk ${active.next}`);
            return;
        }
        // A repeated chunk is acknowledged again (the first acknowledgement may have been lost)
        // and kept once.
        ack(path, index);
        if (index < active.next) return;
        active.parts.push(decoded.bytes);
        active.md5.append(decoded.bytes);
        active.next++;
        progress.bytes += decoded.bytes.length;
        progress.current = path;
        if (active.next === active.total) {
            const file = active;
            active = null;
            const md5 = file.md5.hex();
            if (md5 !== expected[path]) {
                fail(path, `the file's MD5 ${md5} differs from the list's ${expected[path]}`);
            } else {
                storing.add(path);
                stores = stores.then(async () => {
                    const error = await Promise.resolve(sink.store(path, file.parts, md5)).catch((e) => String(e));
                    storing.delete(path);
                    if (error) fail(path, error);
                    else results.set(path, { path, ok: true, refused: false, missing: false, error: '' });
                    wake();
                });
            }
            progress.filesDone++;
        }
        options.onProgress?.({ ...progress });
    };

    const offPacket = connection.on('packet', (packet) => {
        if (packet.type === 'ctx_chunk' && !packet.broadcast) {
            try {
                onChunk(packet.payload);
            } catch (error) {
                connection.log(2, String(error));
            }
        } else if (packet.type === 'ctx_stop_transfer') {
            stopped = true;
        } else if (packet.type === 'ctx_list') {
            fresh = filesFromPayload(packet.payload);
            // The server broadcasts its list when a client's batch ends; it may also be another
            // client's batch or a change of the tree, so a later chunk of ours cancels it. The
            // first broadcast since the last request (or since the back-off began) says that a
            // slot is free.
            if (packet.broadcast) {
                endSeen = Date.now();
                if (slotFree < 0) {
                    slotFree = endSeen;
                    slotJitter = backoff.slotFreeWait();
                }
            }
        } else {
            return;
        }
        wake();
    });
    const offStatus = connection.on('status', (status) => {
        if (status === 'offline') gone = true;
        wake();
    });
    const offLost = connection.on('connection_lost', () => {
        lost = 'the connection to the broker was lost';
        wake();
    });
    const onAbort = () => wake();
    options.signal?.addEventListener('abort', onAbort);

    /**
     * Resolves once `check` returns true; `check` returns otherwise the time (Date.now() value)
     * at which it may change without a packet (Infinity for none).
     * @param {() => true | number} check
     * @returns {Promise<void>}
     */
    const waitUntil = (check) =>
        new Promise((resolve) => {
            /** @type {ReturnType<typeof setTimeout> | undefined} */
            let timer;
            const run = () => {
                clearTimeout(timer);
                const next = check();
                if (next === true) {
                    wake = () => {};
                    resolve();
                    return;
                }
                timer = setTimeout(run, Math.max(0, Math.min(next - Date.now(), 1000)));
            };
            wake = run;
            run();
        });

    const failPending = (reason) => {
        if (active) fail(active.path, reason);
        for (const path of pending()) fail(path, reason);
    };
    let tries = 0;
    let earlyTries = 0;
    let ended = '';
    let sendRequest = true;
    let requestAt = 0;
    if (gone) {
        // Nothing to ask of a server that is not there.
        ended = 'offline';
        sendRequest = false;
        failPending('the server is offline');
    }
    try {
        while (true) {
            const asked = pending();
            if (!asked.length) break;
            if (sendRequest) {
                served = false;
                fresh = null;
                endSeen = -1;
                slotFree = -1;
                requestAt = Date.now();
                lastActivity = requestAt;
                tries++;
                // The list comes with every try: it tells a file gone from the server from a
                // server too busy to answer.
                connection.send('ctx_request').catch(() => {});
                connection.send('ctx_download_request', asked).catch((error) => {
                    lost = error.message;
                    wake();
                });
            }
            sendRequest = true;
            /** @type {'done' | 'stopped' | 'gone' | 'lost' | 'cancelled' | 'ended' | 'freed' | 'busy' | 'silent'} */
            let outcome = 'done';
            await waitUntil(() => {
                const now = Date.now();
                if (!pending().length) outcome = 'done';
                else if (stopped) outcome = 'stopped';
                else if (gone) outcome = 'gone';
                else if (lost) outcome = 'lost';
                else if (aborted()) outcome = 'cancelled';
                else if (served && endSeen >= 0 && now - endSeen > END_GRACE_MS) outcome = 'ended';
                else if (!served) {
                    const turned = turnedAwayAt(requestAt, slotFree, slotJitter, busyWindowMs);
                    if (now < turned.at) return turned.at;
                    outcome = turned.freed ? 'freed' : 'busy';
                } else if (now - lastActivity > timeoutMs) outcome = 'silent';
                else return Math.min(endSeen >= 0 ? endSeen + END_GRACE_MS + 1 : Infinity, lastActivity + timeoutMs + 1);
                return true;
            });
            if (outcome === 'done') break;
            // The outcomes that end the transfer: what `ended` says, and why the files failed.
            const endings = {
                stopped: ['stopped', 'the server stopped all transfers before the file arrived'],
                gone: ['offline', 'the server went offline'],
                lost: ['connection_lost', lost],
                cancelled: ['stopped', 'cancelled'],
                silent: ['', `no data from the server for ${timeoutMs} ms`],
            };
            if (outcome in endings) {
                const [why, reason] = endings[outcome];
                ended = why;
                failPending(reason);
                break;
            }
            // The batch has ended (or never began): the file in progress cannot be finished by it.
            if (active) fail(active.path, 'the server ended the batch before the file was complete');
            for (const path of pending()) {
                if (fresh && !(path in fresh)) {
                    fail(path, 'the server no longer has the file');
                    results.get(path).missing = true;
                    continue;
                }
                if (fresh) expected[path] = fresh[path];
                // Served and ended without the file: the server could not read it, and asked again
                // it would only skip it again.
                if (served) fail(path, 'the server ended the batch without sending the file (missing or unreadable there)');
            }
            if (!pending().length) break;
            const reason = outcome === 'busy'
                ? `no chunk within ${busyWindowMs} ms`
                : "another client's batch ended before any chunk came";
            // The back-off counts every try, so that its fallback grows; after a broadcast the
            // random wait has already been taken.
            const backoffMs = backoff.nextWait();
            const waitMs = outcome === 'freed' ? 0 : backoffMs;
            if (Date.now() + waitMs > deadline) {
                failPending(`the server was busy: no chunk after ${tries} ${tries === 1 ? 'try' : 'tries'}`);
                break;
            }
            connection.log(4, `The server seems busy (${reason}): try ${tries + 1} in ${Math.round(waitMs)} ms`);
            options.onRetry?.({ attempt: tries + 1, waitMs, reason });
            // A chunk during the wait means that the last request was served after all: its batch
            // is followed instead of asking again. A list broadcast during the wait says that a
            // slot is free: the wait ends 0 to 250 ms after it.
            const waitEnd = Date.now() + waitMs;
            slotFree = -1;
            let early = outcome === 'freed';
            await waitUntil(() => {
                const now = Date.now();
                const end = backoffEndsAt(waitEnd, slotFree, slotJitter);
                if (end.early && now >= end.at && now < waitEnd) {
                    early = true;
                    return true;
                }
                if (served || stopped || gone || lost || aborted() || now >= waitEnd) return true;
                return end.at;
            });
            if (early && !served) earlyTries++;
            if (served || stopped || gone || lost || aborted()) {
                sendRequest = false;
                endSeen = -1;
            }
        }
        await stores;
    } finally {
        offPacket();
        offStatus();
        offLost();
        options.signal?.removeEventListener('abort', onAbort);
    }
    for (const path of wanted) if (!results.has(path)) fail(path, 'the server did not send the file before the deadline');
    return { tries, earlyTries, ended };
}
