// The chunk format in the page: files travel in chunks of 512000 bytes, each compressed as the
// server's qCompress does (4-byte big-endian length of the raw bytes, then a zlib stream at level
// 9), Base64-coded, with the MD5 hex of the raw chunk. Also the file and context hashes.
// Pure functions on Uint8Array; used on the page's main thread.
import pako from 'pako';
import SparkMD5 from 'spark-md5';

export const CHUNK_SIZE = 512000;
export const COMPRESSION_LEVEL = 9;

/** @param {Uint8Array} bytes @returns {string} lower-case MD5 hex */
export function md5_hex(bytes) {
    const view = bytes.byteOffset === 0 && bytes.byteLength === bytes.buffer.byteLength
        ? bytes.buffer
        : bytes.slice().buffer;
    return SparkMD5.ArrayBuffer.hash(view);
}

/** @param {string} text @returns {string} MD5 hex of the text's UTF-8 bytes */
function md5_text(text) {
    return md5_hex(new TextEncoder().encode(text));
}

/**
 * The context hash of a files object: MD5 hex of (MD5 hex of the paths joined, in UTF-16 code
 * unit order, followed by MD5 hex of their file hashes joined in the same order).
 * @param {Record<string, string>} files  path to MD5 hex
 */
export function context_hash(files) {
    const paths = Object.keys(files).sort();
    return md5_text(md5_text(paths.join('')) + md5_text(paths.map((p) => files[p]).join('')));
}

/** @param {number} size @returns {number} */
export function chunk_count(size) {
    return Math.ceil(size / CHUNK_SIZE);
}

/** @param {Uint8Array} bytes @returns {string} */
export function base64_encode(bytes) {
    let text = '';
    const step = 0x8000;
    for (let i = 0; i < bytes.length; i += step) {
        text += String.fromCharCode.apply(null, Array.from(bytes.subarray(i, i + step)));
    }
    return btoa(text);
}

/** @param {string} text @returns {Uint8Array} */
export function base64_decode(text) {
    const binary = atob(text);
    const bytes = new Uint8Array(binary.length);
    for (let i = 0; i < binary.length; ++i) bytes[i] = binary.charCodeAt(i);
    return bytes;
}

/**
 * The chunk object of chunk `index` of a file, ready to publish.
 * @param {{file: string, bytes: Uint8Array, index: number, remaining_files: number}} arg
 */
export function encode_chunk({ file, bytes, index, remaining_files }) {
    const raw = bytes.subarray(index * CHUNK_SIZE, Math.min(bytes.length, (index + 1) * CHUNK_SIZE));
    const zlib = pako.deflate(raw, { level: COMPRESSION_LEVEL });
    const framed = new Uint8Array(4 + zlib.length);
    new DataView(framed.buffer).setUint32(0, raw.length, false);
    framed.set(zlib, 4);
    return {
        file,
        chunk_index: index,
        remaining_files,
        total_chunks: chunk_count(bytes.length),
        data: base64_encode(framed),
        compression: COMPRESSION_LEVEL,
        hash: md5_hex(raw),
        percent: 0,
        speed: Date.now() / 1000,
    };
}

/**
 * The raw bytes of a received chunk object, or null when it does not decode or its MD5 differs.
 * @param {{data: string, compression: number, hash: string}} chunk
 * @returns {Uint8Array | null}
 */
export function decode_chunk(chunk) {
    try {
        let bytes = base64_decode(String(chunk.data ?? ''));
        if (chunk.compression) {
            if (bytes.length < 4) return null;
            const length = new DataView(bytes.buffer, bytes.byteOffset, 4).getUint32(0, false);
            bytes = length === 0 ? new Uint8Array(0) : pako.inflate(bytes.subarray(4));
            if (bytes.length !== length) return null;
        }
        return md5_hex(bytes) === chunk.hash ? bytes : null;
    } catch {
        return null;
    }
}
