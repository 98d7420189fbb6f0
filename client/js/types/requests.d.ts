/**
 * Asks for the list (`ctx_request`), again every second until a `ctx_list` comes (an answer to
 * this client or a broadcast). Rejects with "timeout" after `timeoutMs`.
 * @param {import('./connection.js').ContextSyncConnection} connection
 * @param {{timeoutMs?: number, signal?: AbortSignal}} [options]
 * @returns {Promise<Record<string, string>>}
 */
export function requestList(connection: import("./connection.js").ContextSyncConnection, options?: {
    timeoutMs?: number;
    signal?: AbortSignal;
}): Promise<Record<string, string>>;
/**
 * The server's context hash (`state_of_service`).
 * @param {import('./connection.js').ContextSyncConnection} connection
 * @param {{timeoutMs?: number, signal?: AbortSignal}} [options]
 * @returns {Promise<string>}
 */
export function requestServerHash(connection: import("./connection.js").ContextSyncConnection, options?: {
    timeoutMs?: number;
    signal?: AbortSignal;
}): Promise<string>;
/**
 * Asks for lists until one satisfies `accept` (first after `firstDelayMs`); the last list seen
 * when the time is up, or null when none came.
 * @param {import('./connection.js').ContextSyncConnection} connection
 * @param {(files: Record<string, string>) => boolean} accept
 * @param {{timeoutMs?: number, firstDelayMs?: number, signal?: AbortSignal}} [options]
 * @returns {Promise<{files: Record<string, string> | null, accepted: boolean}>}
 */
export function waitForList(connection: import("./connection.js").ContextSyncConnection, accept: (files: Record<string, string>) => boolean, options?: {
    timeoutMs?: number;
    firstDelayMs?: number;
    signal?: AbortSignal;
}): Promise<{
    files: Record<string, string> | null;
    accepted: boolean;
}>;
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
export function removeFiles(connection: import("./connection.js").ContextSyncConnection, paths: string[], options?: {
    timeoutMs?: number;
}): Promise<EntryResult[]>;
/**
 * Renames a file on the server (never over an existing one); waits until the list shows it.
 * @param {import('./connection.js').ContextSyncConnection} connection
 * @param {string} from
 * @param {string} to
 * @param {{timeoutMs?: number}} [options]
 * @returns {Promise<EntryResult>}
 */
export function renameFile(connection: import("./connection.js").ContextSyncConnection, from: string, to: string, options?: {
    timeoutMs?: number;
}): Promise<EntryResult>;
/**
 * Asks the server to make its tree match `files` (`ctx_replace_request`); resolves with the list
 * once the server has applied it (the list shows no file outside `files`), or the last list seen.
 * Content the server has nowhere must be uploaded afterwards.
 * @param {import('./connection.js').ContextSyncConnection} connection
 * @param {Record<string, string>} files
 * @param {{timeoutMs?: number}} [options]
 * @returns {Promise<Record<string, string>>}
 */
export function replaceTree(connection: import("./connection.js").ContextSyncConnection, files: Record<string, string>, options?: {
    timeoutMs?: number;
}): Promise<Record<string, string>>;
/** `ctx_request` gets no answer while the server rescans: ask again after this long. */
export const LIST_RETRY_MS: 1000;
/** The server's watcher settles 1000 ms after a change; a little more before asking. */
export const SERVER_SETTLE_MS: 1500;
export type EntryResult = {
    path: string;
    action: "remove" | "rename";
    /**
     * the list shows the change
     */
    ok: boolean;
    /**
     * refused before anything was sent
     */
    refused: boolean;
    /**
     * "" when ok
     */
    error: string;
    /**
     * the new path of a rename
     */
    to?: string;
};
