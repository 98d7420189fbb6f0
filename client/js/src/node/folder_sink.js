// Node: a download sink that writes into a local folder. A path is refused before anything is
// written when it is not a safe relative path or when its folder would resolve outside the
// destination through a link. A verified file is written to a temporary name next to its
// destination ("TMP_ctxsync_<name>", ignored by scans on both sides) and renamed into place, so
// a reader never sees half a file.
import { promises as fs } from 'node:fs';
import path from 'node:path';
import { unsafePathReason } from '../paths.js';

export const TEMP_PREFIX = 'TMP_ctxsync_';

export class FolderSink {
    /** @param {string} dir the destination folder (created when missing) */
    constructor(dir) {
        this.dir = path.resolve(dir);
    }

    /** @param {string} relative @returns {Promise<string | null>} */
    async check(relative) {
        try {
            await this.target(relative, false);
            return null;
        } catch (error) {
            return error.message;
        }
    }

    /**
     * The absolute destination of `relative`, its folders created when `create`.
     * @param {string} relative
     * @param {boolean} create
     */
    async target(relative, create) {
        const reason = unsafePathReason(relative);
        if (reason) throw new Error(`unsafe path "${relative}" refused: ${reason}`);
        await fs.mkdir(this.dir, { recursive: true });
        const root = await fs.realpath(this.dir);
        const wanted = path.join(root, ...relative.split('/'));
        const parent = path.dirname(wanted);
        const inside = (p) => p === root || p.startsWith(root + path.sep);
        // The deepest folder that exists already decides where missing ones would be created:
        // checked before mkdir, so that no folder is ever made through a link that leads out.
        let existing = parent;
        while (existing.length > root.length && !(await exists(existing))) existing = path.dirname(existing);
        if (!inside(await fs.realpath(existing))) throw new Error(`"${relative}" refused: its folder leads outside ${root}`);
        if (create) await fs.mkdir(parent, { recursive: true });
        const realParent = (await exists(parent)) ? await fs.realpath(parent) : parent;
        if (!inside(realParent)) throw new Error(`"${relative}" refused: its folder leads outside ${root}`);
        const target = path.join(realParent, path.basename(wanted));
        const stat = await fs.lstat(target).catch(() => null);
        if (stat?.isDirectory()) throw new Error(`"${relative}" refused: a folder of that name exists`);
        return target;
    }

    /**
     * @param {string} relative
     * @param {Uint8Array[]} parts
     * @returns {Promise<string | null>}
     */
    async store(relative, parts) {
        let target;
        try {
            target = await this.target(relative, true);
        } catch (error) {
            return error.message;
        }
        const temp = path.join(path.dirname(target), TEMP_PREFIX + path.basename(target));
        let handle;
        try {
            handle = await fs.open(temp, 'w');
            for (const part of parts) await handle.write(part);
            await handle.close();
            handle = null;
            await fs.rename(temp, target);
            return null;
        } catch (error) {
            await handle?.close().catch(() => {});
            await fs.rm(temp, { force: true }).catch(() => {});
            return `cannot write ${target}: ${error.message}`;
        }
    }
}

async function exists(p) {
    return fs.lstat(p).then(
        () => true,
        () => false,
    );
}
