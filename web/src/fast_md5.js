// MD5 for the page through WebAssembly (hash-wasm), about twice as fast as the library's portable
// MD5: the page checks every downloaded chunk and every whole file with it. Each hasher of the
// WebAssembly module holds one running hash, and making one is asynchronous while the library's
// hook is not: a few are made up front and lent out, one per running hash, and taken back after
// its digest. When all are lent (a hash left unfinished keeps its hasher), the portable MD5 takes
// over for that hash. Runs on the page's main thread.
import { createMD5 } from 'hash-wasm';
import { useMd5Implementation } from 'context-sync-client';

/** Hashers made up front: a download runs two hashes at once (the chunk's and the file's). */
const POOL_SIZE = 6;

/**
 * Installs the WebAssembly MD5 once its hashers are ready; until then (and if WebAssembly is not
 * available) the library's own MD5 is used. Resolves true when installed.
 * @returns {Promise<boolean>}
 */
export async function install_fast_md5() {
    /** @type {Array<Awaited<ReturnType<typeof createMD5>>>} */
    let free;
    try {
        free = await Promise.all(Array.from({ length: POOL_SIZE }, () => createMD5()));
    } catch {
        return false;
    }
    useMd5Implementation(() => {
        const hasher = free.pop();
        if (!hasher) return null;
        hasher.init();
        let done = false;
        return {
            update: (bytes) => {
                hasher.update(bytes);
            },
            digestHex: () => {
                if (done) throw new Error('the digest of this hash was already taken');
                done = true;
                const hex = hasher.digest('hex');
                free.push(hasher);
                return hex;
            },
        };
    });
    return true;
}
