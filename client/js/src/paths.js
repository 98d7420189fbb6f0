// The rule for relative paths of the context tree, the same as the server's: a path is refused
// when it is empty, absolute, has an empty, "." or ".." segment, a backslash or a control
// character, or is longer than 1024 bytes in UTF-8. Checked before anything is sent or written.

export const MAX_PATH_BYTES = 1024;

// Unicode category Cc: U+0000..U+001F and U+007F..U+009F.
const CONTROL = /[\u0000-\u001f\u007f-\u009f]/;

/**
 * Why `path` is not a safe relative path, or null when it is.
 * @param {unknown} path
 * @returns {string | null}
 */
export function unsafePathReason(path) {
    if (typeof path !== 'string') return 'is not text';
    if (path.length === 0) return 'is empty';
    if (!isWellFormed(path)) return 'is not valid text';
    if (CONTROL.test(path)) return 'contains a control character';
    if (path.includes('\\')) return 'contains a backslash';
    if (new TextEncoder().encode(path).length > MAX_PATH_BYTES) return `is longer than ${MAX_PATH_BYTES} bytes`;
    if (path.startsWith('/')) return 'is absolute';
    for (const segment of path.split('/')) {
        if (segment === '') return 'contains an empty segment';
        if (segment === '..') return "contains a '..' segment";
        if (segment === '.') return "contains a '.' segment";
    }
    return null;
}

/** @param {string} text */
function isWellFormed(text) {
    for (let i = 0; i < text.length; i++) {
        const unit = text.charCodeAt(i);
        if (unit >= 0xd800 && unit <= 0xdbff) {
            const next = text.charCodeAt(i + 1);
            if (!(next >= 0xdc00 && next <= 0xdfff)) return false;
            i++;
        } else if (unit >= 0xdc00 && unit <= 0xdfff) {
            return false;
        }
    }
    return true;
}

/**
 * True when `path` is a safe relative path.
 * @param {unknown} path
 */
export function isSafeRelativePath(path) {
    return unsafePathReason(path) === null;
}

/**
 * True for paths that the server never lists: any segment starting with "TMP_" (any case) or
 * with "." (hidden).
 * @param {string} path
 */
export function isIgnoredPath(path) {
    return path.split('/').some((segment) => /^tmp_/i.test(segment) || segment.startsWith('.'));
}

/**
 * The background rule the server applies: JPEG or PNG, exactly 640 x 284, at most 1048576 bytes,
 * directly in background/.
 */
export const BACKGROUND_FOLDER = 'background/';
export const BACKGROUND_WIDTH = 640;
export const BACKGROUND_HEIGHT = 284;
export const BACKGROUND_MAX_BYTES = 1048576;
