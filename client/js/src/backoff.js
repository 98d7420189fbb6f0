// The waits of a download that a busy server ignored (it serves at most ten downloading clients
// and drops the request of an eleventh without an answer), the same rule as every client of the
// service follows (docs/protocol.md, "Staying in step"):
//
// - A request with no chunk of its own yet is turned away when none comes within 4000 ms, or, once
//   a `ctx_list` broadcast came before any of its chunks (another client's batch ended: a slot is
//   free), at max(broadcast, request + 1.5 s) + a wait drawn uniformly from [0, 250] ms. In the
//   second case it is asked again at once, with no back-off on top.
// - Otherwise it is asked again after a randomised exponential back-off: before try n (n >= 2) a
//   wait uniform in [c/2, c] ms with c = min(8000, 500 x 2^(n-2)), so that clients turned away
//   together do not come back together. A broadcast during the back-off ends it 0 to 250 ms
//   (drawn uniformly) after the broadcast, if that is earlier.
// - Every try counts in the back-off, early ones included: should no broadcast come, the next
//   wait is the one for the next try number.

export const BUSY_FIRST_CHUNK_MS = 4000;
export const BACKOFF_BASE_MS = 500;
export const BACKOFF_CAP_MS = 8000;
/** How long after the request a broadcast ahead of any chunk is taken as "turned away". */
export const SLOT_FREE_AFTER_REQUEST_MS = 1500;
/** The random wait after a broadcast that frees a slot is uniform in [0, SLOT_JITTER_MS]. */
export const SLOT_JITTER_MS = 250;

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
 * The wait after a list broadcast that says a slot is free: uniform in [0, SLOT_JITTER_MS].
 * @param {() => number} [random] a source of numbers in [0, 1)
 * @returns {number}
 */
export function slotFreeWaitMs(random = Math.random) {
    return random() * SLOT_JITTER_MS;
}

/**
 * When a request that has no chunk of its own yet counts as turned away: 4000 ms after it
 * (`busyWindowMs`), or, when a broadcast came at `slotFreeAt` (-1 for none),
 * max(slotFreeAt, requestAt + 1500) + `jitterMs` if that is earlier. `freed` says that the
 * broadcast decides, and then the request is asked again at once.
 * @param {number} requestAt
 * @param {number} slotFreeAt
 * @param {number} jitterMs
 * @param {number} [busyWindowMs]
 * @returns {{at: number, freed: boolean}}
 */
export function turnedAwayAt(requestAt, slotFreeAt, jitterMs, busyWindowMs = BUSY_FIRST_CHUNK_MS) {
    // Just past the window, as "more than 4000 ms without a chunk".
    const busy = requestAt + busyWindowMs + 1;
    if (slotFreeAt < 0) return { at: busy, freed: false };
    const freed = Math.max(slotFreeAt, requestAt + SLOT_FREE_AFTER_REQUEST_MS) + jitterMs;
    return freed <= busy ? { at: freed, freed: true } : { at: busy, freed: false };
}

/**
 * When a back-off that would end at `waitEnd` ends: at a broadcast (`slotFreeAt`, -1 for none)
 * plus `jitterMs`, if that is earlier. `early` says that the broadcast decides.
 * @param {number} waitEnd
 * @param {number} slotFreeAt
 * @param {number} jitterMs
 * @returns {{at: number, early: boolean}}
 */
export function backoffEndsAt(waitEnd, slotFreeAt, jitterMs) {
    if (slotFreeAt >= 0 && slotFreeAt + jitterMs < waitEnd) return { at: slotFreeAt + jitterMs, early: true };
    return { at: waitEnd, early: false };
}

/** The waits of one sequence of tries; the first try waits for nothing. */
export class RetryBackoff {
    /** @param {() => number} [random] a source of numbers in [0, 1) */
    constructor(random = Math.random) {
        this.random = random;
        /** Tries counted so far, the first included. */
        this.tries = 1;
    }

    /** The wait before the next try; the first call gives the wait before try 2. */
    nextWait() {
        this.tries++;
        return backoffDelayMs(this.tries, this.random);
    }

    /** The wait after a broadcast that says a slot is free. */
    slotFreeWait() {
        return slotFreeWaitMs(this.random);
    }
}

/**
 * A repeatable source of numbers in [0, 1) for a given 32-bit seed (mulberry32), for tests and
 * for tools that want to replay a run.
 * @param {number} seed
 * @returns {() => number}
 */
export function seededRandom(seed) {
    let state = seed >>> 0;
    return () => {
        state = (state + 0x6d2b79f5) >>> 0;
        let t = state;
        t = Math.imul(t ^ (t >>> 15), t | 1);
        t ^= t + Math.imul(t ^ (t >>> 7), t | 61);
        return ((t ^ (t >>> 14)) >>> 0) / 4294967296;
    };
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
