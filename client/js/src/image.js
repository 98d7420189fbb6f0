// The background rule the server applies to files in background/, checked before anything is
// sent: JPEG or PNG, exactly 640 x 284 pixels, at most 1048576 bytes. The size is read the way the
// server reads it (the first SOF0..SOF3 frame header of a JPEG, the IHDR of a PNG), so a file this
// check accepts is one the server keeps.
import { BACKGROUND_HEIGHT, BACKGROUND_MAX_BYTES, BACKGROUND_WIDTH } from './paths.js';

/**
 * @typedef {object} ImageInfo
 * @property {'jpeg' | 'png' | 'gif' | 'webp' | 'unknown'} format
 * @property {number} width 0 when unknown
 * @property {number} height 0 when unknown
 * @property {number} bytes
 * @property {boolean} valid the server keeps it as a background
 * @property {string} reason why not ("" when valid)
 */

const be16 = (b, i) => (i + 1 < b.length ? (b[i] << 8) | b[i + 1] : 0);
const be32 = (b, i) => (i + 3 < b.length ? ((b[i] << 24) >>> 0) + ((b[i + 1] << 16) | (b[i + 2] << 8) | b[i + 3]) : 0);

function detect(bytes) {
    const starts = (sig) => sig.every((v, i) => bytes[i] === v);
    if (bytes.length >= 5 && starts([0xff, 0xd8])) return 'jpeg';
    if (starts([0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a])) return 'png';
    const text = String.fromCharCode(...bytes.subarray(0, 12));
    if (text.startsWith('GIF87a') || text.startsWith('GIF89a')) return 'gif';
    if (text.startsWith('RIFF') && text.slice(8, 12) === 'WEBP') return 'webp';
    return 'unknown';
}

function jpegSize(bytes) {
    let i = 2;
    while (i < bytes.length) {
        if (bytes[i++] !== 0xff) continue;
        let marker;
        do {
            if (i >= bytes.length) return null;
            marker = bytes[i++];
        } while (marker === 0xff);
        if (i + 2 > bytes.length) return null;
        const length = be16(bytes, i);
        i += 2;
        if ((marker & 0xfc) === 0xc0) return { height: be16(bytes, i + 1), width: be16(bytes, i + 3) };
        i += length - 2;
    }
    return null;
}

function pngSize(bytes) {
    const type = String.fromCharCode(...bytes.subarray(12, 16));
    if (type !== 'IHDR') return null;
    return { width: be32(bytes, 16), height: be32(bytes, 20) };
}

/**
 * @param {Uint8Array} bytes the whole file
 * @returns {ImageInfo}
 */
export function inspectImage(bytes) {
    const format = detect(bytes);
    const size = format === 'jpeg' ? jpegSize(bytes) : format === 'png' ? pngSize(bytes) : null;
    const info = { format, width: size?.width ?? 0, height: size?.height ?? 0, bytes: bytes.length, valid: false, reason: '' };
    if (bytes.length > BACKGROUND_MAX_BYTES) info.reason = `larger than ${BACKGROUND_MAX_BYTES} bytes`;
    else if (format !== 'jpeg' && format !== 'png') info.reason = format === 'unknown' ? 'not an image' : `format ${format.toUpperCase()} not supported (JPEG or PNG only)`;
    else if (!size) info.reason = 'the image size cannot be read';
    else if (size.width !== BACKGROUND_WIDTH || size.height !== BACKGROUND_HEIGHT)
        info.reason = `${size.width} x ${size.height} pixels, not ${BACKGROUND_WIDTH} x ${BACKGROUND_HEIGHT}`;
    else info.valid = true;
    return info;
}
