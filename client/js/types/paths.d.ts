/**
 * Why `path` is not a safe relative path, or null when it is.
 * @param {unknown} path
 * @returns {string | null}
 */
export function unsafePathReason(path: unknown): string | null;
/**
 * True when `path` is a safe relative path.
 * @param {unknown} path
 */
export function isSafeRelativePath(path: unknown): boolean;
/**
 * True for paths that the server never lists: any segment starting with "TMP_" (any case) or
 * with "." (hidden).
 * @param {string} path
 */
export function isIgnoredPath(path: string): boolean;
export const MAX_PATH_BYTES: 1024;
/**
 * The background rule the server applies: JPEG or PNG, exactly 640 x 284, at most 1048576 bytes,
 * directly in background/.
 */
export const BACKGROUND_FOLDER: "background/";
export const BACKGROUND_WIDTH: 640;
export const BACKGROUND_HEIGHT: 284;
export const BACKGROUND_MAX_BYTES: 1048576;
