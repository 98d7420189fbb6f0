// The files object (relative path to MD5 hex), the context hash over it computed exactly as the
// server computes it, and the comparison of two trees.
import { md5Hex, EMPTY_MD5 } from './md5.js';

/** @typedef {Record<string, string>} FileMap relative path to MD5 hex */

/**
 * Paths in the server's order: by UTF-16 code units (JavaScript's default string order).
 * @param {FileMap} files
 * @returns {string[]}
 */
export function sortedPaths(files) {
    return Object.keys(files).sort();
}

/**
 * The context hash ("cumulative hash"): MD5 hex of (MD5 hex of all paths joined, in order)
 * followed by (MD5 hex of all file hashes joined in the same order).
 * @param {FileMap} files
 * @returns {string}
 */
export function contextHash(files) {
    const paths = sortedPaths(files);
    const names = md5Hex(paths.join(''));
    const contents = md5Hex(paths.map((path) => files[path]).join(''));
    return md5Hex(names + contents);
}

/** The context hash of an empty tree. */
export const EMPTY_CONTEXT_HASH = '020eb29b524d7ba672d9d48bc72db455';

/**
 * Keeps the members of a `ctx_list` payload whose value is a string.
 * @param {unknown} payload
 * @returns {FileMap}
 */
export function filesFromPayload(payload) {
    /** @type {FileMap} */
    const files = {};
    if (payload && typeof payload === 'object' && !Array.isArray(payload)) {
        for (const [path, hash] of Object.entries(payload)) if (typeof hash === 'string') files[path] = hash;
    }
    return files;
}

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
export function compareTrees(local, server) {
    const missing = [];
    const changed = [];
    const onlyLocal = [];
    for (const path of sortedPaths(server)) {
        if (!(path in local)) missing.push(path);
        else if (local[path] !== server[path]) changed.push(path);
    }
    for (const path of sortedPaths(local)) if (!(path in server)) onlyLocal.push(path);
    return { inStep: !missing.length && !changed.length && !onlyLocal.length, missing, changed, onlyLocal };
}

export { EMPTY_MD5 };
