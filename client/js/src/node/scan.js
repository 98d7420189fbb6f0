// Node: the files object of a local folder, as the server would list it: regular files below the
// folder (links to files and folders are not followed), without hidden entries and without
// anything whose name starts with "TMP_" (any case); relative paths with "/" separators.
import { createHash } from 'node:crypto';
import { createReadStream, promises as fs } from 'node:fs';
import path from 'node:path';
import { isIgnoredPath } from '../paths.js';

/**
 * MD5 hex of a file, read in pieces.
 * @param {string} file
 * @returns {Promise<string>}
 */
export async function fileMd5(file) {
    const md5 = createHash('md5');
    for await (const piece of createReadStream(file, { highWaterMark: 1 << 20 })) md5.update(piece);
    return md5.digest('hex');
}

/**
 * @param {string} dir
 * @returns {Promise<Record<string, string>>} relative path to MD5 hex; {} when `dir` is missing
 */
export async function scanFolder(dir) {
    /** @type {Record<string, string>} */
    const files = {};
    const walk = async (folder, prefix) => {
        let entries;
        try {
            entries = await fs.readdir(folder, { withFileTypes: true });
        } catch {
            return;
        }
        for (const entry of entries) {
            const relative = prefix + entry.name;
            if (isIgnoredPath(relative)) continue;
            const absolute = path.join(folder, entry.name);
            if (entry.isDirectory()) await walk(absolute, relative + '/');
            else if (entry.isFile()) {
                try {
                    files[relative] = await fileMd5(absolute);
                } catch {
                    // Unreadable: left out, as the server leaves it out.
                }
            }
        }
    };
    await walk(path.resolve(dir), '');
    return files;
}
