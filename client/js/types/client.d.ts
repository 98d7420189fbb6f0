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
     * @param {import('./connection.js').ConnectOptions} [options]
     * @returns {Promise<ContextSyncClient>}
     */
    static connect(options?: import("./connection.js").ConnectOptions): Promise<ContextSyncClient>;
    /**
     * Use ContextSyncClient.connect().
     * @param {import('./connection.js').ContextSyncConnection} connection
     */
    constructor(connection: import("./connection.js").ContextSyncConnection);
    connection: import("./connection.js").ContextSyncConnection;
    get clientId(): string;
    /** The server's retained status: "online", "offline" or "" before it came. */
    get serviceStatus(): string;
    /**
     * The server's files and their context hash.
     * @param {{timeoutMs?: number, signal?: AbortSignal}} [options]
     * @returns {Promise<{files: Record<string, string>, contextHash: string}>}
     */
    list(options?: {
        timeoutMs?: number;
        signal?: AbortSignal;
    }): Promise<{
        files: Record<string, string>;
        contextHash: string;
    }>;
    /**
     * The server's context hash as it reports it (`state_of_service`).
     * @param {{timeoutMs?: number}} [options]
     */
    serverHash(options?: {
        timeoutMs?: number;
    }): Promise<string>;
    /**
     * Downloads files into memory. `paths`: the paths to fetch (their hashes are taken from a fresh
     * list), or a files object (path to MD5), or nothing for the whole tree.
     * @param {string[] | Record<string, string>} [paths]
     * @param {import('./download.js').DownloadOptions} [options]
     * @returns {Promise<import('./download.js').DownloadResult & {data: Map<string, Uint8Array>}>}
     */
    pull(paths?: string[] | Record<string, string>, options?: import("./download.js").DownloadOptions): Promise<import("./download.js").DownloadResult & {
        data: Map<string, Uint8Array>;
    }>;
    /**
     * @param {string[] | Record<string, string> | undefined} paths
     * @param {{timeoutMs?: number}} options
     * @returns {Promise<Record<string, string>>}
     */
    resolve(paths: string[] | Record<string, string> | undefined, options: {
        timeoutMs?: number;
    }): Promise<Record<string, string>>;
    /**
     * Uploads files given as bytes.
     * @param {import('./upload.js').UploadFile[]} files
     * @param {import('./upload.js').UploadOptions} [options]
     */
    push(files: import("./upload.js").UploadFile[], options?: import("./upload.js").UploadOptions): Promise<{
        files: UploadResult[];
        bytes: number;
        transferMs: number;
    }>;
    /**
     * Removes files from the server.
     * @param {string[]} paths
     * @param {{timeoutMs?: number}} [options]
     */
    rm(paths: string[], options?: {
        timeoutMs?: number;
    }): Promise<import("./requests.js").EntryResult[]>;
    /**
     * Renames a file on the server.
     * @param {string} from
     * @param {string} to
     * @param {{timeoutMs?: number}} [options]
     */
    mv(from: string, to: string, options?: {
        timeoutMs?: number;
    }): Promise<import("./requests.js").EntryResult>;
    /**
     * Makes the server's tree match `files` as far as it can with what it has (copies, renames,
     * removals), then uploads `uploads` (the content it lacks). Resolves with the final list.
     * @param {Record<string, string>} files
     * @param {{uploads?: import('./upload.js').UploadFile[], timeoutMs?: number, force?: boolean}} [options]
     */
    replace(files: Record<string, string>, options?: {
        uploads?: import("./upload.js").UploadFile[];
        timeoutMs?: number;
        force?: boolean;
    }): Promise<{
        files: Record<string, string>;
        contextHash: string;
        pushed: {
            files: UploadResult[];
            bytes: number;
            transferMs: number;
        };
    }>;
    /**
     * Calls `listener` for every packet the server sends to this client or to all, for the
     * server's status and for the connection's loss and return. Returns a function that stops.
     * @param {(event: WatchEvent) => void} listener
     * @returns {() => void}
     */
    watch(listener: (event: WatchEvent) => void): () => void;
    /** Says goodbye (presence "offline") and disconnects. */
    close(): Promise<void>;
}
export type WatchEvent = {
    /**
     * the packet type, or "service_status" / "connection_lost" / "reconnected"
     */
    type: string;
    subtype?: string;
    broadcast?: boolean;
    payload?: any;
    /**
     * for lists
     */
    files?: Record<string, string>;
    /**
     * for lists
     */
    contextHash?: string;
    /**
     * for "service_status"
     */
    status?: string;
};
