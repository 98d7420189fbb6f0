// The short request/answer exchanges: the list, the server's context hash, delete, rename and
// replace, and waiting for a list that shows a change.
import { ContextSyncError } from './errors.js';
import { filesFromPayload } from './tree.js';
import { unsafePathReason } from './paths.js';

/** `ctx_request` gets no answer while the server rescans: ask again after this long. */
export const LIST_RETRY_MS = 1000;
/** The server's watcher settles 1000 ms after a change; a little more before asking. */
export const SERVER_SETTLE_MS = 1500;

/**
 * Asks for the list (`ctx_request`), again every second until a `ctx_list` comes (an answer to
 * this client or a broadcast). Rejects with "timeout" after `timeoutMs`.
 * @param {import('./connection.js').ContextSyncConnection} connection
 * @param {{timeoutMs?: number, signal?: AbortSignal}} [options]
 * @returns {Promise<Record<string, string>>}
 */
export async function requestList(connection, options = {}) {
    const packet = await askUntil(connection, 'ctx_request', undefined, (p) => p.type === 'ctx_list', options);
    return filesFromPayload(packet.payload);
}

/**
 * Sends `type` (with `message`) every LIST_RETRY_MS until a packet that `accept` takes comes.
 * @returns {Promise<import('./topics.js').Packet>}
 */
async function askUntil(connection, type, message, accept, options) {
    const timeoutMs = options.timeoutMs ?? connection.timeoutMs;
    const end = Date.now() + timeoutMs;
    while (Date.now() < end && !options.signal?.aborted) {
        const answer = connection.nextPacket(accept, Math.min(LIST_RETRY_MS, end - Date.now()), options.signal);
        await connection.send(type, message);
        const packet = await answer;
        if (packet) return packet;
    }
    throw new ContextSyncError('timeout', `no answer to ${type} from the server within ${timeoutMs} ms`);
}

/**
 * The server's context hash (`state_of_service`).
 * @param {import('./connection.js').ContextSyncConnection} connection
 * @param {{timeoutMs?: number, signal?: AbortSignal}} [options]
 * @returns {Promise<string>}
 */
export async function requestServerHash(connection, options = {}) {
    const packet = await askUntil(
        connection,
        'state_of_service',
        undefined,
        (p) => p.type === 'state_of_service' && !p.broadcast && typeof p.payload.context_hash === 'string',
        options,
    );
    return packet.payload.context_hash;
}

/**
 * Asks for lists until one satisfies `accept` (first after `firstDelayMs`); the last list seen
 * when the time is up, or null when none came.
 * @param {import('./connection.js').ContextSyncConnection} connection
 * @param {(files: Record<string, string>) => boolean} accept
 * @param {{timeoutMs?: number, firstDelayMs?: number, signal?: AbortSignal}} [options]
 * @returns {Promise<{files: Record<string, string> | null, accepted: boolean}>}
 */
export async function waitForList(connection, accept, options = {}) {
    const timeoutMs = options.timeoutMs ?? connection.timeoutMs;
    const end = Date.now() + timeoutMs;
    let last = null;
    // A broadcast list that shows the change ends the wait at once.
    let seen = null;
    const off = connection.on('packet', (p) => {
        if (p.type === 'ctx_list') seen = filesFromPayload(p.payload);
    });
    try {
        if (options.firstDelayMs) await connection.nextPacket((p) => p.type === 'ctx_list' && accept(filesFromPayload(p.payload)), options.firstDelayMs, options.signal);
        while (!options.signal?.aborted) {
            if (seen && accept(seen)) return { files: seen, accepted: true };
            const left = end - Date.now();
            if (left <= 0) break;
            try {
                last = await requestList(connection, { timeoutMs: Math.min(left, 3000), signal: options.signal });
            } catch {
                continue;
            }
            if (accept(last)) return { files: last, accepted: true };
            const pause = Math.min(LIST_RETRY_MS, end - Date.now());
            if (pause > 0) await connection.nextPacket((p) => p.type === 'ctx_list' && accept(filesFromPayload(p.payload)), pause, options.signal);
        }
    } finally {
        off();
    }
    return { files: last ?? seen, accepted: false };
}

/**
 * @typedef {object} EntryResult
 * @property {string} path
 * @property {'remove' | 'rename'} action
 * @property {boolean} ok the list shows the change
 * @property {boolean} refused refused before anything was sent
 * @property {string} error "" when ok
 * @property {string} [to] the new path of a rename
 */

/**
 * Removes files from the server; waits until the list shows them gone.
 * @param {import('./connection.js').ContextSyncConnection} connection
 * @param {string[]} paths
 * @param {{timeoutMs?: number}} [options]
 * @returns {Promise<EntryResult[]>}
 */
export async function removeFiles(connection, paths, options = {}) {
    const entries = paths.map((path) => {
        const reason = unsafePathReason(path);
        return { path, action: /** @type {'remove'} */ ('remove'), ok: false, refused: !!reason, error: reason ? `unsafe path "${path}" refused: ${reason}` : '' };
    });
    const sendable = entries.filter((e) => !e.refused).map((e) => e.path);
    if (!sendable.length) return entries;
    const before = await requestList(connection, options);
    for (const entry of entries) if (!entry.refused && !(entry.path in before)) entry.error = 'the server has no such file';
    const present = sendable.filter((path) => path in before);
    if (!present.length) return entries;
    await connection.send('ctx_delete_request', present);
    const { files } = await waitForList(connection, (list) => present.every((path) => !(path in list)), { timeoutMs: options.timeoutMs, firstDelayMs: SERVER_SETTLE_MS });
    for (const entry of entries) {
        if (!present.includes(entry.path)) continue;
        entry.ok = !!files && !(entry.path in files);
        if (!entry.ok) entry.error = 'the server still lists the file';
    }
    return entries;
}

/**
 * Renames a file on the server (never over an existing one); waits until the list shows it.
 * @param {import('./connection.js').ContextSyncConnection} connection
 * @param {string} from
 * @param {string} to
 * @param {{timeoutMs?: number}} [options]
 * @returns {Promise<EntryResult>}
 */
export async function renameFile(connection, from, to, options = {}) {
    const entry = { path: from, to, action: /** @type {'rename'} */ ('rename'), ok: false, refused: false, error: '' };
    for (const path of [from, to]) {
        const reason = unsafePathReason(path);
        if (reason) return { ...entry, refused: true, error: `unsafe path "${path}" refused: ${reason}` };
    }
    const before = await requestList(connection, options);
    if (!(from in before)) return { ...entry, error: 'the server has no such file' };
    if (to in before) return { ...entry, error: `${to} exists already on the server` };
    const hash = before[from];
    await connection.send('ctx_rename_request', [{ [from]: to }]);
    const { files } = await waitForList(connection, (list) => !(from in list) && list[to] === hash, { timeoutMs: options.timeoutMs, firstDelayMs: SERVER_SETTLE_MS });
    entry.ok = !!files && !(from in files) && files[to] === hash;
    if (!entry.ok) entry.error = files && !(to in files) && !(from in files) ? 'the server did not keep the file under its new name' : 'the list does not show the rename';
    return entry;
}

/**
 * Asks the server to make its tree match `files` (`ctx_replace_request`); resolves with the list
 * once the server has applied it (the list shows no file outside `files`), or the last list seen.
 * Content the server has nowhere must be uploaded afterwards.
 * @param {import('./connection.js').ContextSyncConnection} connection
 * @param {Record<string, string>} files
 * @param {{timeoutMs?: number}} [options]
 * @returns {Promise<Record<string, string>>}
 */
export async function replaceTree(connection, files, options = {}) {
    for (const path of Object.keys(files)) {
        const reason = unsafePathReason(path);
        if (reason) throw new ContextSyncError('bad_arguments', `unsafe path "${path}" refused: ${reason}`);
    }
    const stopped = connection.nextPacket((p) => p.type === 'ctx_stop_transfer', options.timeoutMs ?? connection.timeoutMs);
    await connection.send('ctx_replace_request', files);
    await stopped;
    const { files: list } = await waitForList(
        connection,
        (list) => Object.keys(list).every((path) => list[path] === files[path]),
        { timeoutMs: options.timeoutMs, firstDelayMs: SERVER_SETTLE_MS },
    );
    return list ?? {};
}
