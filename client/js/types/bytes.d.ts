/** @param {string} text @returns {Uint8Array} */
export function utf8Encode(text: string): Uint8Array;
/** @param {Uint8Array} bytes @returns {string} */
export function utf8Decode(bytes: Uint8Array): string;
/**
 * Base64 of `bytes`, standard alphabet with "=" padding and no line breaks.
 * @param {Uint8Array} bytes
 * @returns {string}
 */
export function base64Encode(bytes: Uint8Array): string;
/**
 * Decodes Base64 leniently, as the server does: characters outside the alphabet are skipped and
 * decoding stops at the first "=". The MD5 check of the decoded bytes decides whether they are good.
 * @param {string} text
 * @returns {Uint8Array}
 */
export function base64Decode(text: string): Uint8Array;
/**
 * @param {Uint8Array[]} parts
 * @returns {Uint8Array}
 */
export function concatBytes(parts: Uint8Array[]): Uint8Array;
/**
 * A Uint8Array view of any binary input (ArrayBuffer, typed array, DataView, Node Buffer).
 * @param {ArrayBuffer | ArrayBufferView} data
 * @returns {Uint8Array}
 */
export function asBytes(data: ArrayBuffer | ArrayBufferView): Uint8Array;
