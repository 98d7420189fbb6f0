/**
 * Downloads `files` (relative path to the MD5 of the server's list) into `sink`.
 * @param {import('./connection.js').ContextSyncConnection} connection
 * @param {Record<string, string>} files
 * @param {DownloadSink} sink
 * @param {DownloadOptions} [options]
 * @returns {Promise<DownloadResult>}
 */
export function downloadFiles(connection: import("./connection.js").ContextSyncConnection, files: Record<string, string>, sink: DownloadSink, options?: DownloadOptions): Promise<DownloadResult>;
/** How long the end of the server's batch (its list broadcast) may precede a last chunk. */
export const END_GRACE_MS: 1500;
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
    /** @type {Map<string, Uint8Array>} */
    files: Map<string, Uint8Array>;
    check(path: any): string;
    store(path: any, parts: any): any;
}
/**
 * Where downloaded files go. check() refuses a path before anything is asked for (return the
 * reason) and store() keeps a complete, verified file (return an error text when it cannot).
 */
export type DownloadSink = {
    check: (path: string) => (string | null | Promise<string | null>);
    store: (path: string, parts: Uint8Array[], md5: string) => (string | null | Promise<string | null>);
};
export type FileResult = {
    path: string;
    ok: boolean;
    /**
     * the path was refused before anything was asked for or written
     */
    refused: boolean;
    /**
     * the server's fresh list no longer holds the file
     */
    missing: boolean;
    /**
     * "" when ok
     */
    error: string;
};
export type DownloadResult = {
    /**
     * in the order asked for
     */
    files: FileResult[];
    /**
     * bytes of verified chunks received
     */
    bytes: number;
    /**
     * download requests sent
     */
    tries: number;
    /**
     * tries asked before their back-off was over because a list broadcast
     * said that a slot was free (and that were not served after all)
     */
    earlyTries: number;
    /**
     * why the transfer ended early
     */
    ended: "offline" | "stopped" | "connection_lost" | "";
};
export type DownloadOptions = {
    /**
     * Date.now() value after which no try starts (default: now + 120 s)
     */
    deadline?: number;
    /**
     * longest silence of the server within a try (default: the connection's)
     */
    timeoutMs?: number;
    signal?: AbortSignal;
    /**
     * the source of the random waits, numbers in [0, 1) (default
     * Math.random; backoff.js's seededRandom(seed) repeats a run)
     */
    random?: () => number;
    /**
     * called
     * before each wait for another try
     */
    onRetry?: (retry: {
        attempt: number;
        waitMs: number;
        reason: string;
    }) => void;
    onProgress?: (progress: {
        bytes: number;
        filesDone: number;
        filesTotal: number;
        current: string;
    }) => void;
};
