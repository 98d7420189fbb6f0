// The background rule, checked in the page before a file is sent: the server keeps only JPEG or
// PNG images (recognised by their content, not their name) of exactly 640 x 284 pixels and at most
// 1048576 bytes, directly in background/. The headers are read by the client library's
// inspectImage, the way the server reads them; this module words the verdict for the page's
// users, refuses a huge file on its size before it is read, and checks the name a file gets.
// Pure functions on bytes; no DOM, so node's test runner checks them on the real fixture files.
import { inspectImage, BACKGROUND_FOLDER, BACKGROUND_WIDTH, BACKGROUND_HEIGHT, BACKGROUND_MAX_BYTES } from 'context-sync-client';

export { BACKGROUND_FOLDER, BACKGROUND_WIDTH, BACKGROUND_HEIGHT };
export const MAX_BACKGROUND_BYTES = BACKGROUND_MAX_BYTES;

/**
 * @typedef {object} image_verdict
 * @property {boolean} valid    true when the server will keep the file
 * @property {string} format    "JPEG", "PNG", "GIF", "WEBP" or "UNKNOWN"
 * @property {number} width     pixels, 0 when unknown or not read
 * @property {number} height    pixels, 0 when unknown or not read
 * @property {number} bytes     file size
 * @property {string} reason    why it is refused; empty when valid
 */

/**
 * Checks a file's bytes against the background rule.
 * @param {Uint8Array} bytes   the whole file, or at least its first 64 KiB together with `size`
 * @param {number} [size]      the file's size when `bytes` holds only its beginning
 * @returns {image_verdict}
 */
export function check_background(bytes, size = bytes.length) {
    const info = inspectImage(bytes);
    const format = info.format.toUpperCase();
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
    const dimensions = info.width || info.height ? { width: info.width, height: info.height } : null;
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
