/**
 * Number of chunks of a file of `size` bytes (0 for an empty file, which is never sent).
 * @param {number} size
 * @returns {number}
 */
export function chunkCount(size: number): number;
/**
 * The compression framing: 4-byte big-endian length of `raw`, then a zlib stream of `raw`.
 * @param {Uint8Array} raw
 * @param {number} [level]
 * @returns {Uint8Array}
 */
export function compressFramed(raw: Uint8Array, level?: number): Uint8Array;
/**
 * Replaces the zlib decompression (context-sync-client/node installs node:zlib's, faster than
 * pako's). Any correct inflate gives the same bytes, so unlike compression this may change freely;
 * compression stays with pako, whose output is byte-identical to the server's and ctxsync's.
 * @param {((stream: Uint8Array) => Uint8Array) | null} implementation throws on a corrupt stream
 */
export function useInflateImplementation(implementation: ((stream: Uint8Array) => Uint8Array) | null): void;
/**
 * Undoes compressFramed; null when the framing or the stream is corrupt, or the length does not
 * match.
 * @param {Uint8Array} framed
 * @returns {Uint8Array | null}
 */
export function decompressFramed(framed: Uint8Array): Uint8Array | null;
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
export function encodeChunk({ file, index, totalChunks, remainingFiles, raw, level, now }: {
    file: string;
    index: number;
    totalChunks: number;
    remainingFiles: number;
    raw: Uint8Array;
    level?: number;
    now?: number;
}): ChunkObject;
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
export function decodeChunk(chunk: any): DecodedChunk;
/**
 * The acknowledgement object: exactly "file" and "chunkIndex" (camel case).
 * @param {string} file
 * @param {number} index
 * @returns {{file: string, chunkIndex: number}}
 */
export function encodeAck(file: string, index: number): {
    file: string;
    chunkIndex: number;
};
export const CHUNK_SIZE: 512000;
/** The zlib level the server and ctxsync use. */
export const COMPRESSION_LEVEL: 9;
export type ChunkObject = {
    /**
     * relative path; names the transfer and the destination
     */
    file: string;
    chunk_index: number;
    /**
     * files of the batch still to come after this one
     */
    remaining_files: number;
    total_chunks: number;
    /**
     * Base64 of the payload
     */
    data: string;
    /**
     * 0: raw payload; 1..9: framed zlib payload
     */
    compression: number;
    /**
     * MD5 hex of the raw chunk
     */
    hash: string;
    percent: number;
    /**
     * the sender's clock in seconds since the epoch (not a rate)
     */
    speed: number;
};
export type DecodedChunk = {
    /**
     * the MD5 of the decoded bytes equals `hash`
     */
    valid: boolean;
    file: string;
    index: number;
    totalChunks: number;
    remainingFiles: number;
    /**
     * the raw chunk (empty when it could not be decoded)
     */
    bytes: Uint8Array;
    /**
     * the hash the sender announced
     */
    hash: string;
    /**
     * the MD5 of `bytes`
     */
    actualHash: string;
};
