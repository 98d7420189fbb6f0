/**
 * MD5 hex of bytes, or of the UTF-8 bytes of a string.
 * @param {Uint8Array | ArrayBuffer | ArrayBufferView | string} data
 * @returns {string}
 */
export function md5Hex(data: Uint8Array | ArrayBuffer | ArrayBufferView | string): string;
/** An incremental MD5: append() parts in order, then hex() once. */
export class Md5 {
    state: any;
    /** @param {Uint8Array} bytes @returns {this} */
    append(bytes: Uint8Array): this;
    /** @returns {string} */
    hex(): string;
}
/** MD5 of zero bytes: the hash the server lists for an empty file. */
export const EMPTY_MD5: "d41d8cd98f00b204e9800998ecf8427e";
