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
 * MD5 hex of bytes, or of the UTF-8 bytes of a string.
 * @param {Uint8Array | ArrayBuffer | ArrayBufferView | string} data
 * @returns {string}
 */
export function md5Hex(data) {
    const bytes = typeof data === 'string' ? utf8Encode(data) : asBytes(data);
    return SparkMD5.ArrayBuffer.hash(exactBuffer(bytes));
}

/** An incremental MD5: append() parts in order, then hex() once. */
export class Md5 {
    constructor() {
        this.state = new SparkMD5.ArrayBuffer();
    }

    /** @param {Uint8Array} bytes @returns {this} */
    append(bytes) {
        this.state.append(exactBuffer(bytes));
        return this;
    }

    /** @returns {string} */
    hex() {
        return this.state.end();
    }
}

/** MD5 of zero bytes: the hash the server lists for an empty file. */
export const EMPTY_MD5 = 'd41d8cd98f00b204e9800998ecf8427e';
