// The background rule, checked in the page before a file is sent: the server keeps only JPEG or
// PNG images (recognised by their content, not their name) of exactly 640 x 284 pixels and at most
// 1048576 bytes, directly in background/. The header readers follow the server's own validator:
// a PNG's first chunk must be IHDR; a JPEG's size comes from its first SOF0..SOF3 frame header
// (other frame types are skipped, so an arithmetic-coded JPEG has no size and is refused).
// Pure functions on bytes; no DOM, so node's test runner checks them on the real fixture files.

export const BACKGROUND_WIDTH = 640;
export const BACKGROUND_HEIGHT = 284;
export const MAX_BACKGROUND_BYTES = 1048576;
export const BACKGROUND_FOLDER = 'background/';

const PNG_SIGNATURE = [0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a];

/**
 * @typedef {object} image_verdict
 * @property {boolean} valid    true when the server will keep the file
 * @property {string} format    "JPEG", "PNG", "GIF", "WEBP" or "UNKNOWN"
 * @property {number} width     pixels, 0 when unknown
 * @property {number} height    pixels, 0 when unknown
 * @property {number} bytes     file size
 * @property {string} reason    why it is refused; empty when valid
 */

/** @param {Uint8Array} b @param {string} text @param {number} [at] */
function starts_with_text(b, text, at = 0) {
    if (b.length < at + text.length) return false;
    for (let i = 0; i < text.length; ++i) if (b[at + i] !== text.charCodeAt(i)) return false;
    return true;
}

/** @param {Uint8Array} b */
export function detect_format(b) {
    if (b.length >= 5 && b[0] === 0xff && b[1] === 0xd8) return 'JPEG';
    if (b.length >= 8 && PNG_SIGNATURE.every((v, i) => b[i] === v)) return 'PNG';
    if (starts_with_text(b, 'GIF87a') || starts_with_text(b, 'GIF89a')) return 'GIF';
    if (starts_with_text(b, 'RIFF') && starts_with_text(b, 'WEBP', 8)) return 'WEBP';
    return 'UNKNOWN';
}

/** @param {Uint8Array} b @param {number} at */
function be16(b, at) {
    return ((b[at] ?? 0) << 8) | (b[at + 1] ?? 0);
}

/** @param {Uint8Array} b @param {number} at */
function be32(b, at) {
    return be16(b, at) * 65536 + be16(b, at + 2);
}

/**
 * Size of a PNG from its first chunk, which must be IHDR.
 * @param {Uint8Array} b
 * @returns {{width: number, height: number} | null}
 */
export function png_size(b) {
    if (!starts_with_text(b, 'IHDR', 12)) return null;
    return { width: be32(b, 16), height: be32(b, 20) };
}

/**
 * Size of a JPEG from its first SOF0..SOF3 frame header; every other marker is skipped as a
 * segment with a length field.
 * @param {Uint8Array} b
 * @returns {{width: number, height: number} | null}
 */
export function jpeg_size(b) {
    if (b.length < 2 || b[0] !== 0xff || b[1] !== 0xd8) return null;
    let pos = 2;
    while (pos < b.length) {
        if (b[pos++] !== 0xff) continue;
        let marker;
        do {
            if (pos >= b.length) return null;
            marker = b[pos++];
        } while (marker === 0xff);
        if (pos + 2 > b.length) return null;
        const length = be16(b, pos);
        pos += 2;
        if ((marker & 0xfc) === 0xc0) {
            // Sample precision, then height, then width.
            return { width: be16(b, pos + 3), height: be16(b, pos + 1) };
        }
        // Lengths below 2 step back onto the length bytes, which the loop then passes over.
        pos += length - 2;
    }
    return null;
}

/**
 * Checks a file's bytes against the background rule.
 * @param {Uint8Array} bytes   the whole file, or at least its first 64 KiB together with `size`
 * @param {number} [size]      the file's size when `bytes` holds only its beginning
 * @returns {image_verdict}
 */
export function check_background(bytes, size = bytes.length) {
    const format = detect_format(bytes);
    const verdict = { valid: false, format, width: 0, height: 0, bytes: size, reason: '' };
    if (size > MAX_BACKGROUND_BYTES) {
        verdict.reason = `too large: ${size} bytes, at most ${MAX_BACKGROUND_BYTES} allowed`;
        return verdict;
    }
    if (format !== 'JPEG' && format !== 'PNG') {
        verdict.reason = format === 'UNKNOWN'
            ? 'not an image: only JPEG and PNG are kept'
            : `${format} is not supported: only JPEG and PNG are kept`;
        return verdict;
    }
    const dimensions = format === 'PNG' ? png_size(bytes) : jpeg_size(bytes);
    if (!dimensions) {
        verdict.reason = format === 'PNG'
            ? 'broken PNG: its first chunk is not the image header'
            : 'unsupported JPEG: no baseline or progressive frame header';
        return verdict;
    }
    verdict.width = dimensions.width;
    verdict.height = dimensions.height;
    if (dimensions.width !== BACKGROUND_WIDTH || dimensions.height !== BACKGROUND_HEIGHT) {
        verdict.reason = `wrong size: ${dimensions.width} x ${dimensions.height} pixels, `
            + `exactly ${BACKGROUND_WIDTH} x ${BACKGROUND_HEIGHT} required`;
        return verdict;
    }
    verdict.valid = true;
    return verdict;
}

/**
 * Checks the name a background gets on the server (the part after background/): one path
 * segment, no "/" or "\\", not "." or "..", no control characters, not hidden, not a working
 * file of the server (TMP_ prefix), at most 255 bytes.
 * @param {string} name
 * @returns {string} the reason it is refused; empty when it is fine
 */
export function check_background_name(name) {
    if (name.length === 0) return 'the name is empty';
    if (name.includes('/') || name.includes('\\')) return 'the name may not contain "/" or "\\"';
    if (name === '.' || name === '..') return 'the name may not be "." or ".."';
    // eslint-disable-next-line no-control-regex
    if (/[\u0000-\u001f\u007f]/.test(name)) return 'the name may not contain control characters';
    if (name.startsWith('.')) return 'the name may not start with "." (hidden files are not kept)';
    if (name.toUpperCase().startsWith('TMP_')) return 'names starting with TMP_ are the server\'s working files';
    if (new TextEncoder().encode(name).length > 255) return 'the name is longer than 255 bytes';
    return '';
}
