// ContextSyncClient: the library's front door, the same in browsers and in Node. It owns one
// connection and offers the operations of ctxsync on data in memory: list, serverHash, pull
// (files as bytes), push (bytes), rm, mv, replace and watch. Node's folder operations (pull into
// a folder, status, push files, replace from a folder, sync) live in context-sync-client/node.
import { connect } from './connection.js';
import { contextHash } from './tree.js';
import { downloadFiles, MemorySink } from './download.js';
import { uploadFiles } from './upload.js';
import { removeFiles, renameFile, replaceTree, requestList, requestServerHash } from './requests.js';
import { filesFromPayload } from './tree.js';

/**
 * @typedef {object} WatchEvent
 * @property {string} type the packet type, or "service_status" / "connection_lost" / "reconnected"
 * @property {string} [subtype]
 * @property {boolean} [broadcast]
 * @property {any} [payload]
 * @property {Record<string, string>} [files] for lists
 * @property {string} [contextHash] for lists
 * @property {string} [status] for "service_status"
 */

export class ContextSyncClient {
    /**
     * Use ContextSyncClient.connect().
     * @param {import('./connection.js').ContextSyncConnection} connection
     */
    constructor(connection) {
        this.connection = connection;
    }

    /**
     * @param {import('./connection.js').ConnectOptions} [options]
     * @returns {Promise<ContextSyncClient>}
     */
    static async connect(options) {
        return new ContextSyncClient(await connect(options));
    }

    get clientId() {
        return this.connection.clientId;
    }

    /** The server's retained status: "online", "offline" or "" before it came. */
    get serviceStatus() {
        return this.connection.serviceStatus;
    }

    /**
     * The server's files and their context hash.
     * @param {{timeoutMs?: number, signal?: AbortSignal}} [options]
     * @returns {Promise<{files: Record<string, string>, contextHash: string}>}
     */
    async list(options) {
        const files = await requestList(this.connection, options);
        return { files, contextHash: contextHash(files) };
    }

    /**
     * The server's context hash as it reports it (`state_of_service`).
     * @param {{timeoutMs?: number}} [options]
     */
    serverHash(options) {
        return requestServerHash(this.connection, options);
    }

    /**
     * Downloads files into memory. `paths`: the paths to fetch (their hashes are taken from a fresh
     * list), or a files object (path to MD5), or nothing for the whole tree.
     * @param {string[] | Record<string, string>} [paths]
     * @param {import('./download.js').DownloadOptions} [options]
     * @returns {Promise<import('./download.js').DownloadResult & {data: Map<string, Uint8Array>}>}
     */
    async pull(paths, options = {}) {
        const files = await this.resolve(paths, options);
        const sink = new MemorySink();
        const result = await downloadFiles(this.connection, files, sink, options);
        return { ...result, data: sink.files };
    }

    /**
     * @param {string[] | Record<string, string> | undefined} paths
     * @param {{timeoutMs?: number}} options
     * @returns {Promise<Record<string, string>>}
     */
    async resolve(paths, options) {
        if (paths && !Array.isArray(paths)) return paths;
        const { files } = await this.list(options);
        if (!paths) return files;
        /** @type {Record<string, string>} */
        const wanted = {};
        // A path the list lacks is still asked for under an impossible hash, so that it is
        // reported (missing, or refused when unsafe) rather than silently left out.
        for (const path of paths) wanted[path] = files[path] ?? '';
        return wanted;
    }

    /**
     * Uploads files given as bytes.
     * @param {import('./upload.js').UploadFile[]} files
     * @param {import('./upload.js').UploadOptions} [options]
     */
    push(files, options) {
        return uploadFiles(this.connection, files, options);
    }

    /**
     * Removes files from the server.
     * @param {string[]} paths
     * @param {{timeoutMs?: number}} [options]
     */
    rm(paths, options) {
        return removeFiles(this.connection, paths, options);
    }

    /**
     * Renames a file on the server.
     * @param {string} from
     * @param {string} to
     * @param {{timeoutMs?: number}} [options]
     */
    mv(from, to, options) {
        return renameFile(this.connection, from, to, options);
    }

    /**
     * Makes the server's tree match `files` as far as it can with what it has (copies, renames,
     * removals), then uploads `uploads` (the content it lacks). Resolves with the final list.
     * @param {Record<string, string>} files
     * @param {{uploads?: import('./upload.js').UploadFile[], timeoutMs?: number, force?: boolean}} [options]
     */
    async replace(files, options = {}) {
        let list = await replaceTree(this.connection, files, options);
        let pushed = null;
        const uploads = (options.uploads ?? []).filter((f) => list[f.path] !== files[f.path]);
        if (uploads.length) {
            pushed = await uploadFiles(this.connection, uploads, options);
            list = (await this.list(options)).files;
        }
        return { files: list, contextHash: contextHash(list), pushed };
    }

    /**
     * Calls `listener` for every packet the server sends to this client or to all, for the
     * server's status and for the connection's loss and return. Returns a function that stops.
     * @param {(event: WatchEvent) => void} listener
     * @returns {() => void}
     */
    watch(listener) {
        const offs = [
            this.connection.on('packet', (p) => {
                /** @type {WatchEvent} */
                const event = { type: p.type, subtype: p.subtype, broadcast: p.broadcast, payload: p.payload };
                if (p.type === 'ctx_list') {
                    event.files = filesFromPayload(p.payload);
                    event.contextHash = contextHash(event.files);
                }
                listener(event);
            }),
            this.connection.on('status', (status) => listener({ type: 'service_status', status })),
            this.connection.on('connection_lost', () => listener({ type: 'connection_lost' })),
            this.connection.on('reconnected', () => listener({ type: 'reconnected' })),
        ];
        return () => offs.forEach((off) => off());
    }

    /** Says goodbye (presence "offline") and disconnects. */
    close() {
        return this.connection.close();
    }
}
