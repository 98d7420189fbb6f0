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
export function uploadRefusal(path: string, bytes: Uint8Array, force?: boolean): string | null;
/**
 * Uploads `files` as one batch, in order.
 * @param {import('./connection.js').ContextSyncConnection} connection
 * @param {UploadFile[]} files
 * @param {UploadOptions} [options]
 * @returns {Promise<{files: UploadResult[], bytes: number, transferMs: number}>}
 */
export function uploadFiles(connection: import("./connection.js").ContextSyncConnection, files: UploadFile[], options?: UploadOptions): Promise<{
    files: UploadResult[];
    bytes: number;
    transferMs: number;
}>;
/** The server refuses a file whose chunks would exceed 64 MiB. */
export const MAX_UPLOAD_BYTES: number;
/** The server waits 5000 ms for each chunk; the client waits this long for each acknowledgement. */
export const ACK_TIMEOUT_MS: 10000;
export type UploadFile = {
    /**
     * destination, relative to the context root (e.g. "background/wall.png")
     */
    path: string;
    /**
     * the whole file
     */
    bytes: Uint8Array;
    /**
     * where it came from (a local path or a file name), for the results
     */
    file?: string;
};
export type UploadResult = {
    file: string;
    path: string;
    /**
     * sent, acknowledged, and (when checked) kept by the server
     */
    ok: boolean;
    /**
     * refused by the client's checks before sending, or not kept by the server
     */
    refused: boolean;
    /**
     * "" when ok
     */
    error: string;
    md5: string;
};
export type UploadOptions = {
    /**
     * skip the client's background check
     */
    force?: boolean;
    /**
     * wait for the server's verdict in the list (default true)
     */
    verify?: boolean;
    /**
     * longest wait for each acknowledgement and for the verdict
     */
    timeoutMs?: number;
    signal?: AbortSignal;
    onProgress?: (progress: {
        bytes: number;
        totalBytes: number;
        file: string;
        filesDone: number;
        filesTotal: number;
    }) => void;
};
