/** @typedef {Record<string, string>} FileMap relative path to MD5 hex */
/**
 * Paths in the server's order: by UTF-16 code units (JavaScript's default string order).
 * @param {FileMap} files
 * @returns {string[]}
 */
export function sortedPaths(files: FileMap): string[];
/**
 * The context hash ("cumulative hash"): MD5 hex of (MD5 hex of all paths joined, in order)
 * followed by (MD5 hex of all file hashes joined in the same order).
 * @param {FileMap} files
 * @returns {string}
 */
export function contextHash(files: FileMap): string;
/**
 * Keeps the members of a `ctx_list` payload whose value is a string.
 * @param {unknown} payload
 * @returns {FileMap}
 */
export function filesFromPayload(payload: unknown): FileMap;
/**
 * @typedef {object} Comparison
 * @property {boolean} inStep
 * @property {string[]} missing on the server, not local
 * @property {string[]} changed on both, different content
 * @property {string[]} onlyLocal local, not on the server
 */
/**
 * @param {FileMap} local
 * @param {FileMap} server
 * @returns {Comparison}
 */
export function compareTrees(local: FileMap, server: FileMap): Comparison;
/** The context hash of an empty tree. */
export const EMPTY_CONTEXT_HASH: "020eb29b524d7ba672d9d48bc72db455";
export { EMPTY_MD5 };
/**
 * relative path to MD5 hex
 */
export type FileMap = Record<string, string>;
export type Comparison = {
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
};
import { EMPTY_MD5 } from './md5.js';
