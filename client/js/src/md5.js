// MD5 as 32 lower-case hexadecimal characters, for whole byte arrays and incrementally. Web
// Crypto has no MD5, so the same code (spark-md5) runs in browsers and in Node.
import SparkMD5 from 'spark-md5';
import { asBytes, utf8Encode } from './bytes.js';

/** @param {Uint8Array} bytes @returns {ArrayBuffer} */
function exactBuffer(bytes) {
    if (bytes.byteOffset === 0 && bytes.byteLength === bytes.buffer.byteLength && bytes.buffer instanceof ArrayBuffer)
        return bytes.buffer;
    return bytes.slice().buffer;
}

/**
 * An incremental MD5 hasher as an implementation provides it.
 * @typedef {object} Md5State
 * @property {(bytes: Uint8Array) => void} update
 * @property {() => string} digestHex
 */

/** spark-md5: runs everywhere. */
const sparkImplementation = () => {
    const state = new SparkMD5.ArrayBuffer();
    return { update: (bytes) => state.append(exactBuffer(bytes)), digestHex: () => state.end() };
};

let createState = sparkImplementation;
/** @type {() => Md5State | null} */
let chosen = sparkImplementation;

/**
 * Replaces the MD5 implementation (context-sync-client/node installs node:crypto's, several times
 * faster than the portable one). `create` returns a fresh incremental hasher, or null when it has
 * none to give at the moment (the portable one is then used for that hash).
 * @param {(() => Md5State | null) | null} create
 */
export function useMd5Implementation(create) {
    chosen = create ?? sparkImplementation;
    createState = () => chosen() ?? sparkImplementation();
}

/**
 * MD5 hex of bytes, or of the UTF-8 bytes of a string.
 * @param {Uint8Array | ArrayBuffer | ArrayBufferView | string} data
 * @returns {string}
 */
export function md5Hex(data) {
    const bytes = typeof data === 'string' ? utf8Encode(data) : asBytes(data);
    const state = createState();
    state.update(bytes);
    return state.digestHex();
}

/** An incremental MD5: append() parts in order, then hex() once. */
export class Md5 {
    constructor() {
        this.state = createState();
    }

    /** @param {Uint8Array} bytes @returns {this} */
    append(bytes) {
        this.state.update(bytes);
        return this;
    }

    /** @returns {string} */
    hex() {
        return this.state.digestHex();
    }
}

/** MD5 of zero bytes: the hash the server lists for an empty file. */
export const EMPTY_MD5 = 'd41d8cd98f00b204e9800998ecf8427e';
