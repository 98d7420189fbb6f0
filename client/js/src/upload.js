// Uploads files into the server's tree, chunk by chunk (stop-and-wait): chunk i of a file goes
// out as `ctx_chunk` only after the `ctx_chunk_ack` of chunk i-1. Chunks are built exactly as
// ctxsync builds them (see chunk.js). Every path is checked before anything is sent, and so is
// the background rule for files under background/ (unless `force`). After the last
// acknowledgement the server's watcher decides whether the file may stay: the verdict is read
// from the list after the settle time.
import { CHUNK_SIZE, chunkCount, encodeChunk } from './chunk.js';
import { md5Hex } from './md5.js';
import { unsafePathReason, BACKGROUND_FOLDER } from './paths.js';
import { inspectImage } from './image.js';
import { SERVER_SETTLE_MS, waitForList } from './requests.js';

/** The server refuses a file whose chunks would exceed 64 MiB. */
export const MAX_UPLOAD_BYTES = 64 * 1024 * 1024;
/** The server waits 5000 ms for each chunk; the client waits this long for each acknowledgement. */
export const ACK_TIMEOUT_MS = 10000;

/**
 * @typedef {object} UploadFile
 * @property {string} path destination, relative to the context root (e.g. "background/wall.png")
 * @property {Uint8Array} bytes the whole file
 * @property {string} [file] where it came from (a local path or a file name), for the results
 */

/**
 * @typedef {object} UploadResult
 * @property {string} file
 * @property {string} path
 * @property {boolean} ok sent, acknowledged, and (when checked) kept by the server
 * @property {boolean} refused refused by the client's checks before sending, or not kept by the server
 * @property {string} error "" when ok
 * @property {string} md5
 */

/**
 * @typedef {object} UploadOptions
 * @property {boolean} [force] skip the client's background check
 * @property {boolean} [verify] wait for the server's verdict in the list (default true)
 * @property {number} [timeoutMs] longest wait for each acknowledgement and for the verdict
 * @property {AbortSignal} [signal]
 * @property {(progress: {bytes: number, totalBytes: number, file: string, filesDone: number, filesTotal: number}) => void} [onProgress]
 */

/**
 * The client's own check of one file; the reason it is refused, or null.
 * @param {string} path
 * @param {Uint8Array} bytes
 * @param {boolean} force
 * @returns {string | null}
 */
export function uploadRefusal(path, bytes, force = false) {
    const reason = unsafePathReason(path);
    if (reason) return `unsafe path "${path}" refused: ${reason}`;
    if (bytes.length > MAX_UPLOAD_BYTES) return `larger than ${MAX_UPLOAD_BYTES} bytes`;
    if (!force && path.startsWith(BACKGROUND_FOLDER)) {
        if (path.slice(BACKGROUND_FOLDER.length).includes('/')) return 'background/ holds no folders';
        const info = inspectImage(bytes);
        if (!info.valid) return `not a valid background: ${info.reason}`;
    }
    return null;
}

/**
 * Uploads `files` as one batch, in order.
 * @param {import('./connection.js').ContextSyncConnection} connection
 * @param {UploadFile[]} files
 * @param {UploadOptions} [options]
 * @returns {Promise<{files: UploadResult[], bytes: number, transferMs: number}>}
 */
export async function uploadFiles(connection, files, options = {}) {
    const timeoutMs = options.timeoutMs ?? ACK_TIMEOUT_MS;
    const results = files.map((f) => {
        const refusal = uploadRefusal(f.path, f.bytes, options.force);
        if (refusal) connection.log(3, `${f.file ?? f.path}: ${refusal}`);
        return { file: f.file ?? f.path, path: f.path, ok: false, refused: !!refusal, error: refusal ?? '', md5: refusal ? '' : md5Hex(f.bytes) };
    });
    const sendable = files.map((f, i) => ({ ...f, result: results[i] })).filter((f) => !f.result.refused);
    const totalBytes = sendable.reduce((sum, f) => sum + f.bytes.length, 0);
    const progress = { bytes: 0, totalBytes, file: '', filesDone: 0, filesTotal: sendable.length };
    const started = Date.now();
    let acknowledged = [];
    // The server's "offline", a lost connection or the caller's signal end the upload at once.
    const ending = new AbortController();
    let ended = '';
    const end = (why) => {
        if (!ended) ended = why;
        ending.abort();
    };
    const offs = [
        connection.on('status', (status) => status === 'offline' && end('the server went offline')),
        connection.on('connection_lost', () => end('the connection to the broker was lost')),
    ];
    const onAbort = () => end('cancelled');
    options.signal?.addEventListener('abort', onAbort);
    if (options.signal?.aborted) end('cancelled');
    if (connection.serviceStatus === 'offline') end('the server is offline');
    try {
        for (let n = 0; n < sendable.length && !ended; n++) {
            const { path, bytes, result } = sendable[n];
            const total = chunkCount(bytes.length);
            progress.file = path;
            if (total === 0) {
                // The chunk format has no message for an empty file.
                result.error = 'an empty file cannot be sent';
                continue;
            }
            let ok = true;
            for (let index = 0; index < total; index++) {
                const raw = bytes.subarray(index * CHUNK_SIZE, Math.min(bytes.length, (index + 1) * CHUNK_SIZE));
                const chunk = encodeChunk({ file: path, index, totalChunks: total, remainingFiles: sendable.length - n - 1, raw });
                const ack = connection.nextPacket(
                    (p) => p.type === 'ctx_chunk_ack' && !p.broadcast && p.payload.file === path && p.payload.chunkIndex === index,
                    timeoutMs,
                    ending.signal,
                );
                try {
                    await connection.send('ctx_chunk', chunk);
                } catch (error) {
                    result.error = error.message;
                    ok = false;
                    break;
                }
                if (!(await ack)) {
                    result.error = ended || `no acknowledgement of chunk ${index} within ${timeoutMs} ms (refused by the server)`;
                    ok = false;
                    break;
                }
                progress.bytes += raw.length;
                options.onProgress?.({ ...progress });
            }
            if (ok) acknowledged.push(result);
            else connection.log(3, `${path}: ${result.error}`);
            progress.filesDone++;
        }
    } finally {
        offs.forEach((off) => off());
        options.signal?.removeEventListener('abort', onAbort);
    }
    for (const { result } of sendable) if (!result.error && !acknowledged.includes(result)) result.error = ended;
    const transferMs = Date.now() - started;
    if (ended || options.verify === false || !acknowledged.length) {
        for (const result of acknowledged) result.ok = true;
    } else {
        const kept = (list) => acknowledged.every((r) => list[r.path] === r.md5);
        const { files: list } = await waitForList(connection, kept, {
            timeoutMs: SERVER_SETTLE_MS + 3000,
            firstDelayMs: SERVER_SETTLE_MS,
        });
        for (const result of acknowledged) {
            result.ok = !!list && list[result.path] === result.md5;
            if (!result.ok) {
                result.refused = true;
                result.error = 'the server did not keep the file';
            }
        }
    }
    return { files: results, bytes: progress.bytes, transferMs };
}
