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
    status(dir: string, options?: {
        timeoutMs?: number;
    }): Promise<{
        serverHash: string;
        localHash: string;
        inStep: boolean;
        /**
         * on the server, not local
         */
        missing: string[];
        /**
         * on both, different content
         */
        changed: string[];
        /**
         * local, not on the server
         */
        onlyLocal: string[];
    }>;
    /**
     * Downloads what is missing or differs into `dir`; with `delete`, removes local files that the
     * server does not have.
     * @param {string} dir
     * @param {import('../download.js').DownloadOptions & {delete?: boolean, server?: Record<string, string>}} [options]
     * @returns {Promise<PullResult>}
     */
    pullInto(dir: string, options?: import("../download.js").DownloadOptions & {
        delete?: boolean;
        server?: Record<string, string>;
    }): Promise<PullResult>;
    /**
     * Uploads local files into the server folder `to` (default "background/"), each under its own
     * file name.
     * @param {string[]} files local paths
     * @param {import('../upload.js').UploadOptions & {to?: string}} [options]
     */
    pushFiles(files: string[], options?: import("../upload.js").UploadOptions & {
        to?: string;
    }): Promise<{
        files: import("../upload.js").UploadResult[];
        bytes: number;
        transferMs: number;
    }>;
    /**
     * Makes the server's tree equal to `dir`: a replace request, then the upload of what the server
     * had nowhere.
     * @param {string} dir
     * @param {{timeoutMs?: number, force?: boolean}} [options]
     */
    replaceFrom(dir: string, options?: {
        timeoutMs?: number;
        force?: boolean;
    }): Promise<{
        files: Record<string, string>;
        contextHash: string;
        inStep: boolean;
        pushed: {
            files: UploadResult[];
            bytes: number;
            transferMs: number;
        };
    }>;
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
    sync(dir: string, options?: {
        signal?: AbortSignal;
        roundDeadlineMs?: number;
        timeoutMs?: number;
        onRound?: (round: PullResult & {
            serverHash: string;
        }) => void;
    }): Promise<void>;
}
export type PullResult = {
    pulled: string[];
    deleted: string[];
    failed: {
        path: string;
        error: string;
        missing: boolean;
        refused: boolean;
    }[];
    bytes: number;
    /**
     * the folder's context hash equals the server's list's afterwards
     */
    inStep: boolean;
    /**
     * of the folder afterwards
     */
    contextHash: string;
    ended: "offline" | "stopped" | "connection_lost" | "";
};
import { ContextSyncClient } from '../client.js';
