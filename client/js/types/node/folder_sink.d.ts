export const TEMP_PREFIX: "TMP_ctxsync_";
export class FolderSink {
    /** @param {string} dir the destination folder (created when missing) */
    constructor(dir: string);
    dir: string;
    /** @param {string} relative @returns {Promise<string | null>} */
    check(relative: string): Promise<string | null>;
    /**
     * The absolute destination of `relative`, its folders created when `create`.
     * @param {string} relative
     * @param {boolean} create
     */
    target(relative: string, create: boolean): Promise<string>;
    /**
     * @param {string} relative
     * @param {Uint8Array[]} parts
     * @returns {Promise<string | null>}
     */
    store(relative: string, parts: Uint8Array[]): Promise<string | null>;
}
