// The chunk format: how a file is cut into chunks of 512000 bytes, the chunk object of a
// `ctx_chunk` packet (nine keys), its compression framing (4-byte big-endian uncompressed length
// followed by a zlib stream, as the server's compression produces it), Base64, and the MD5 of the
// raw chunk that the receiver checks. Also the acknowledgement object of `ctx_chunk_ack`.
import pako from 'pako';
import { base64Decode, base64DecodeBytes, base64Encode } from './bytes.js';
import { DATA_BYTES } from './topics.js';
import { md5Hex } from './md5.js';

export const CHUNK_SIZE = 512000;
/** The zlib level the server and ctxsync use. */
export const COMPRESSION_LEVEL = 9;

/**
 * Number of chunks of a file of `size` bytes (0 for an empty file, which is never sent).
 * @param {number} size
 * @returns {number}
 */
export function chunkCount(size) {
    return Math.floor(size / CHUNK_SIZE) + (size % CHUNK_SIZE ? 1 : 0);
}

/**
 * The compression framing: 4-byte big-endian length of `raw`, then a zlib stream of `raw`.
 * @param {Uint8Array} raw
 * @param {number} [level]
 * @returns {Uint8Array}
 */
export function compressFramed(raw, level = COMPRESSION_LEVEL) {
    const stream = pako.deflate(raw, { level });
    const out = new Uint8Array(4 + stream.length);
    new DataView(out.buffer).setUint32(0, raw.length, false);
    out.set(stream, 4);
    return out;
}

/** pako's inflate: runs everywhere. */
const pakoInflate = (stream) => pako.inflate(stream);
let inflate = pakoInflate;

/**
 * Replaces the zlib decompression (context-sync-client/node installs node:zlib's, faster than
 * pako's). Any correct inflate gives the same bytes, so unlike compression this may change freely;
 * compression stays with pako, whose output is byte-identical to the server's and ctxsync's.
 * @param {((stream: Uint8Array) => Uint8Array) | null} implementation throws on a corrupt stream
 */
export function useInflateImplementation(implementation) {
    inflate = implementation ?? pakoInflate;
}

/**
 * Undoes compressFramed; null when the framing or the stream is corrupt, or the length does not
 * match.
 * @param {Uint8Array} framed
 * @returns {Uint8Array | null}
 */
export function decompressFramed(framed) {
    if (framed.length < 4) return null;
    const expected = new DataView(framed.buffer, framed.byteOffset, 4).getUint32(0, false);
    let raw;
    try {
        raw = inflate(framed.subarray(4));
    } catch {
        return null;
    }
    if (!(raw instanceof Uint8Array) || raw.length !== expected) return null;
    return raw;
}

/**
 * @typedef {object} ChunkObject
 * @property {string} file relative path; names the transfer and the destination
 * @property {number} chunk_index
 * @property {number} remaining_files files of the batch still to come after this one
 * @property {number} total_chunks
 * @property {string} data Base64 of the payload
 * @property {number} compression 0: raw payload; 1..9: framed zlib payload
 * @property {string} hash MD5 hex of the raw chunk
 * @property {number} percent
 * @property {number} speed the sender's clock in seconds since the epoch (not a rate)
 */

/**
 * Builds the chunk object for the raw bytes of chunk `index` of `file`, the way ctxsync does:
 * compressed at level 9, percent 0 (the batch is unfinished while chunks are sent), speed = whole
 * seconds since the epoch.
 * @param {{file: string, index: number, totalChunks: number, remainingFiles: number, raw: Uint8Array, level?: number, now?: number}} args
 * @returns {ChunkObject}
 */
export function encodeChunk({ file, index, totalChunks, remainingFiles, raw, level = COMPRESSION_LEVEL, now }) {
    const payload = level > 0 ? compressFramed(raw, level) : raw;
    // Keys in the order the server's and ctxsync's JSON writer puts them (sorted), so that the
    // message is the same text as theirs.
    return {
        chunk_index: index,
        compression: level,
        data: base64Encode(payload),
        file,
        hash: md5Hex(raw),
        percent: 0,
        remaining_files: remainingFiles,
        speed: Math.floor((now ?? Date.now()) / 1000),
        total_chunks: totalChunks,
    };
}

/**
 * @typedef {object} DecodedChunk
 * @property {boolean} valid the MD5 of the decoded bytes equals `hash`
 * @property {string} file
 * @property {number} index
 * @property {number} totalChunks
 * @property {number} remainingFiles
 * @property {Uint8Array} bytes the raw chunk (empty when it could not be decoded)
 * @property {string} hash the hash the sender announced
 * @property {string} actualHash the MD5 of `bytes`
 */

/**
 * Decodes and checks a chunk object as the server does: missing or mistyped keys read as their
 * defaults; Base64 decoded leniently; decompressed when `compression` is not 0; valid only when
 * the MD5 hex of the bytes equals `hash` exactly (lower case).
 * @param {any} chunk
 * @returns {DecodedChunk}
 */
export function decodeChunk(chunk) {
    const object = chunk && typeof chunk === 'object' && !Array.isArray(chunk) ? chunk : {};
    const text = (key) => (typeof object[key] === 'string' ? object[key] : '');
    const integer = (key) => (Number.isInteger(object[key]) ? object[key] : 0);
    const file = text('file');
    const hash = text('hash');
    // A chunk from parseAnswer's fast path has its Base64 as bytes: decoded from them directly.
    const dataBytes = object[DATA_BYTES];
    let bytes = dataBytes instanceof Uint8Array ? base64DecodeBytes(dataBytes) : base64Decode(text('data'));
    if (integer('compression') !== 0) bytes = decompressFramed(bytes) ?? new Uint8Array(0);
    const actualHash = md5Hex(bytes);
    return {
        valid: actualHash === hash,
        file,
        index: integer('chunk_index'),
        totalChunks: integer('total_chunks'),
        remainingFiles: integer('remaining_files'),
        bytes,
        hash,
        actualHash,
    };
}

/**
 * The acknowledgement object: exactly "file" and "chunkIndex" (camel case).
 * @param {string} file
 * @param {number} index
 * @returns {{file: string, chunkIndex: number}}
 */
export function encodeAck(file, index) {
    return { chunkIndex: index, file };
}
