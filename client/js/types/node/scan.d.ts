/**
 * MD5 hex of a file, read in pieces.
 * @param {string} file
 * @returns {Promise<string>}
 */
export function fileMd5(file: string): Promise<string>;
/**
 * @param {string} dir
 * @returns {Promise<Record<string, string>>} relative path to MD5 hex; {} when `dir` is missing
 */
export function scanFolder(dir: string): Promise<Record<string, string>>;
