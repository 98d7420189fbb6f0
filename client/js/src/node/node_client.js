// Node: ContextSyncClient with local folders and files. Adds pullInto (download what differs into a
// folder, atomically per file), status (compare a folder with the server by context hash),
// pushFiles (upload local files), replaceFrom (make the server's tree equal to a folder) and sync
// (follow the server's tree into a folder until stopped).
import { promises as fs } from 'node:fs';
import path from 'node:path';
import { ContextSyncClient } from '../client.js';
import { compareTrees, contextHash } from '../tree.js';
import { downloadFiles } from '../download.js';
import { uploadFiles } from '../upload.js';
import { replaceTree, LIST_RETRY_MS } from '../requests.js';
import { sleep } from '../backoff.js';
import { unsafePathReason, BACKGROUND_FOLDER } from '../paths.js';
import { FolderSink } from './folder_sink.js';
import { scanFolder } from './scan.js';

/**
 * @typedef {object} PullResult
 * @property {string[]} pulled
 * @property {string[]} deleted
 * @property {{path: string, error: string, missing: boolean, refused: boolean}[]} failed
 * @property {number} bytes
 * @property {boolean} inStep the folder's context hash equals the server's list's afterwards
 * @property {string} contextHash of the folder afterwards
 * @property {'offline' | 'stopped' | 'connection_lost' | ''} ended
 */

export class NodeContextSyncClient extends ContextSyncClient {
    /**
     * Compares `dir` with the server's tree.
     * @param {string} dir
     * @param {{timeoutMs?: number}} [options]
     */
    async status(dir, options) {
        const [{ files: server, contextHash: serverHash }, local] = await Promise.all([this.list(options), scanFolder(dir)]);
        const comparison = compareTrees(local, server);
        return { ...comparison, serverHash, localHash: contextHash(local) };
    }

    /**
     * Downloads what is missing or differs into `dir`; with `delete`, removes local files that the
     * server does not have.
     * @param {string} dir
     * @param {import('../download.js').DownloadOptions & {delete?: boolean, server?: Record<string, string>}} [options]
     * @returns {Promise<PullResult>}
     */
    async pullInto(dir, options = {}) {
        const server = options.server ?? (await this.list(options)).files;
        const local = await scanFolder(dir);
        const comparison = compareTrees(local, server);
        /** @type {Record<string, string>} */
        const wanted = {};
        for (const p of [...comparison.missing, ...comparison.changed]) wanted[p] = server[p];
        const result = await downloadFiles(this.connection, wanted, new FolderSink(dir), options);
        const deleted = [];
        if (options.delete) deleted.push(...(await removeLocal(dir, comparison.onlyLocal)));
        // The folder now: what was there, with the files written (verified against the list)
        // and without those removed; no second hashing of the whole folder.
        const after = { ...local };
        for (const f of result.files) if (f.ok) after[f.path] = server[f.path];
        for (const p of deleted) delete after[p];
        const failed = result.files.filter((f) => !f.ok).map(({ path: p, error, missing, refused }) => ({ path: p, error, missing, refused }));
        return {
            pulled: result.files.filter((f) => f.ok).map((f) => f.path),
            deleted,
            failed,
            bytes: result.bytes,
            inStep: contextHash(after) === contextHash(server),
            contextHash: contextHash(after),
            ended: result.ended,
        };
    }

    /**
     * Uploads local files into the server folder `to` (default "background/"), each under its own
     * file name.
     * @param {string[]} files local paths
     * @param {import('../upload.js').UploadOptions & {to?: string}} [options]
     */
    async pushFiles(files, options = {}) {
        let to = options.to ?? BACKGROUND_FOLDER;
        if (to && !to.endsWith('/')) to += '/';
        const uploads = [];
        const unreadable = [];
        for (const file of files) {
            try {
                uploads.push({ file, path: to + path.basename(file), bytes: new Uint8Array(await fs.readFile(file)) });
            } catch (error) {
                unreadable.push({ file, path: to + path.basename(file), ok: false, refused: false, error: `cannot read ${file}: ${error.message}`, md5: '' });
            }
        }
        const result = await uploadFiles(this.connection, uploads, options);
        return { ...result, files: [...unreadable, ...result.files] };
    }

    /**
     * Makes the server's tree equal to `dir`: a replace request, then the upload of what the server
     * had nowhere.
     * @param {string} dir
     * @param {{timeoutMs?: number, force?: boolean}} [options]
     */
    async replaceFrom(dir, options = {}) {
        const local = await scanFolder(dir);
        let list = await replaceTree(this.connection, local, options);
        const uploads = [];
        for (const p of Object.keys(local).sort())
            if (list[p] !== local[p]) uploads.push({ file: path.join(dir, p), path: p, bytes: new Uint8Array(await fs.readFile(path.join(dir, p))) });
        const pushed = uploads.length ? await uploadFiles(this.connection, uploads, options) : null;
        if (pushed) list = (await this.list(options)).files;
        return { files: list, contextHash: contextHash(list), inStep: contextHash(list) === contextHash(local), pushed };
    }

    /**
     * Follows the server's tree into `dir` until `signal` aborts: pulls at once, then again after
     * every list the server broadcasts that differs from the folder, after the server comes back
     * online and after a reconnection. Files the server removed are removed locally; local files
     * the server never had are left alone. Each round's downloads retry a busy server until
     * `roundDeadlineMs` (default 60 s) has passed.
     * @param {string} dir
     * @param {{signal?: AbortSignal, roundDeadlineMs?: number, timeoutMs?: number, onRound?: (round: PullResult & {serverHash: string}) => void}} [options]
     * @returns {Promise<void>} resolves when stopped
     */
    async sync(dir, options = {}) {
        const signal = options.signal;
        let known = null; // the server's files at the last round
        let wanted = null; // a newer list to follow, or true to ask for one
        let wake = null;
        const poke = (list) => {
            wanted = list ?? true;
            wake?.();
        };
        const offs = [
            this.connection.on('packet', (p) => {
                if (p.type === 'ctx_list' && p.broadcast) poke(p.payload);
                else if (p.type === 'state_of_service' && p.broadcast) poke();
            }),
            this.connection.on('status', (s) => s === 'online' && known && poke()),
            this.connection.on('reconnected', () => poke()),
        ];
        const onAbort = () => wake?.();
        signal?.addEventListener('abort', onAbort);
        try {
            wanted = true;
            while (!signal?.aborted) {
                if (wanted === null) {
                    await new Promise((resolve) => (wake = resolve));
                    wake = null;
                    continue;
                }
                let server;
                if (wanted === true) {
                    try {
                        server = (await this.list({ timeoutMs: options.timeoutMs, signal })).files;
                    } catch {
                        if (signal?.aborted) break;
                        // No answer (server offline, connection lost): ask again a little later.
                        await sleep(LIST_RETRY_MS, signal);
                        continue;
                    }
                } else {
                    server = Object.fromEntries(Object.entries(wanted).filter(([, v]) => typeof v === 'string'));
                }
                wanted = null;
                const local = await scanFolder(dir);
                const removedOnServer = known ? Object.keys(known).filter((p) => !(p in server) && p in local && local[p] === known[p]) : [];
                known = server;
                const comparison = compareTrees(local, server);
                if (!comparison.missing.length && !comparison.changed.length && !removedOnServer.length) continue;
                const round = await this.pullInto(dir, {
                    server,
                    signal,
                    timeoutMs: options.timeoutMs,
                    deadline: Date.now() + (options.roundDeadlineMs ?? 60000),
                });
                const removed = await removeLocal(dir, removedOnServer);
                round.deleted.push(...removed);
                const after = await scanFolder(dir);
                round.contextHash = contextHash(after);
                round.inStep = round.contextHash === contextHash(server);
                options.onRound?.({ ...round, serverHash: contextHash(server) });
                if (round.failed.some((f) => !f.missing) && !wanted) wanted = true;
            }
        } finally {
            offs.forEach((off) => off());
            signal?.removeEventListener('abort', onAbort);
        }
    }
}

/** Removes files of `dir` given by relative paths; returns those removed. */
async function removeLocal(dir, paths) {
    const removed = [];
    for (const p of paths) {
        if (unsafePathReason(p)) continue;
        try {
            await fs.rm(path.join(dir, ...p.split('/')));
            removed.push(p);
        } catch {
            // Already gone.
        }
    }
    return removed;
}
