// The wait before a retried download when the server is busy (it serves at most ten downloading
// clients and drops the request of an eleventh without an answer). Before try n (n >= 2) the
// client waits a uniform random time in [c/2, c] with c = min(8000, 500 x 2^(n-2)) ms, so that
// many waiting clients spread out instead of asking again all at once.

export const BUSY_FIRST_CHUNK_MS = 4000;
export const BACKOFF_BASE_MS = 500;
export const BACKOFF_CAP_MS = 8000;

/**
 * The ceiling c of the wait before try `attempt` (2 for the first retry); 0 for the first try.
 * @param {number} attempt
 * @returns {number}
 */
export function backoffCeilingMs(attempt) {
    if (attempt < 2) return 0;
    return Math.min(BACKOFF_CAP_MS, BACKOFF_BASE_MS * 2 ** Math.min(attempt - 2, 16));
}

/**
 * The wait before try `attempt`: uniform in [c/2, c].
 * @param {number} attempt
 * @param {() => number} [random] a source of numbers in [0, 1)
 * @returns {number}
 */
export function backoffDelayMs(attempt, random = Math.random) {
    const ceiling = backoffCeilingMs(attempt);
    return ceiling / 2 + random() * (ceiling / 2);
}

/**
 * Resolves after `ms`, or at once when `signal` aborts.
 * @param {number} ms
 * @param {AbortSignal} [signal]
 * @returns {Promise<void>}
 */
export function sleep(ms, signal) {
    return new Promise((resolve) => {
        if (signal?.aborted) return resolve();
        const timer = setTimeout(done, Math.max(0, ms));
        function done() {
            clearTimeout(timer);
            signal?.removeEventListener('abort', done);
            resolve();
        }
        signal?.addEventListener('abort', done);
    });
}
