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
 * base64Decode of the text whose UTF-8 bytes are `bytes`, without making that text first where
 * it can: the same bytes as base64Decode(utf8Decode(bytes)), since the lenient decoder skips every
 * character outside the (ASCII) alphabet and UTF-8 encodes all of them with bytes >= 0x80.
 * @param {Uint8Array} bytes
 * @returns {Uint8Array}
 */
export function base64DecodeBytes(bytes: Uint8Array): Uint8Array;
/**
 * Well-formed Base64 (groups of four, "=" only as the padding of the last one, no other
 * characters) decoded from bytes; null for anything else.
 * @param {Uint8Array} bytes
 * @returns {Uint8Array | null}
 */
export function strictBase64Bytes(bytes: Uint8Array): Uint8Array | null;
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
