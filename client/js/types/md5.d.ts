/**
 * Replaces the MD5 implementation (context-sync-client/node installs node:crypto's, several times
 * faster than the portable one). `create` returns a fresh incremental hasher, or null when it has
 * none to give at the moment (the portable one is then used for that hash).
 * @param {(() => Md5State | null) | null} create
 */
export function useMd5Implementation(create: (() => Md5State | null) | null): void;
/**
 * MD5 hex of bytes, or of the UTF-8 bytes of a string.
 * @param {Uint8Array | ArrayBuffer | ArrayBufferView | string} data
 * @returns {string}
 */
export function md5Hex(data: Uint8Array | ArrayBuffer | ArrayBufferView | string): string;
/** An incremental MD5: append() parts in order, then hex() once. */
export class Md5 {
    state: {
        update: (bytes: any) => any;
        digestHex: () => any;
    };
    /** @param {Uint8Array} bytes @returns {this} */
    append(bytes: Uint8Array): this;
    /** @returns {string} */
    hex(): string;
}
/** MD5 of zero bytes: the hash the server lists for an empty file. */
export const EMPTY_MD5: "d41d8cd98f00b204e9800998ecf8427e";
/**
 * An incremental MD5 hasher as an implementation provides it.
 */
export type Md5State = {
    update: (bytes: Uint8Array) => void;
    digestHex: () => string;
};
