// The page's store of downloaded images: IndexedDB database "context-sync-gallery", object store
// "images", one record {md5, blob} per distinct content, keyed by its MD5 (a Blob, which the
// browser stores without copying it on the page's thread). A reload shows every
// image whose MD5 is here without asking the server for it. Records no list names any more are
// removed by prune(). All methods are asynchronous; failures (private mode, quota) read as a miss.

const DB_NAME = 'context-sync-gallery';
const STORE = 'images';

/** @template T @param {IDBRequest<T>} request @returns {Promise<T>} */
function done(request) {
    return new Promise((resolve, reject) => {
        request.onsuccess = () => resolve(request.result);
        request.onerror = () => reject(request.error);
    });
}

export class image_cache {
    constructor() {
        /** @type {Promise<IDBDatabase | null>} */
        this.db = new Promise((resolve) => {
            try {
                const open = indexedDB.open(DB_NAME, 1);
                open.onupgradeneeded = () => open.result.createObjectStore(STORE, { keyPath: 'md5' });
                open.onsuccess = () => resolve(open.result);
                open.onerror = () => resolve(null);
            } catch {
                resolve(null);
            }
        });
    }

    /** @param {IDBTransactionMode} mode */
    async store(mode) {
        const db = await this.db;
        return db ? db.transaction(STORE, mode).objectStore(STORE) : null;
    }

    /** @param {string} md5 @returns {Promise<Blob | null>} */
    async get(md5) {
        try {
            const store = await this.store('readonly');
            const record = store ? await done(store.get(md5)) : undefined;
            return record?.blob instanceof Blob ? record.blob : null;
        } catch {
            return null;
        }
    }

    /** @param {string} md5 @param {Blob} blob */
    async put(md5, blob) {
        try {
            const store = await this.store('readwrite');
            if (store) await done(store.put({ md5, blob }));
        } catch {
            // A full or missing store only costs a download at the next reload.
        }
    }

    /** Removes every record whose MD5 is not in `keep`. @param {Set<string>} keep */
    async prune(keep) {
        try {
            const store = await this.store('readwrite');
            if (!store) return;
            const keys = /** @type {string[]} */ (await done(store.getAllKeys()));
            for (const key of keys) if (!keep.has(key)) store.delete(key);
        } catch {
            // Stale records only take room.
        }
    }
}
