/**
 * The ceiling c of the wait before try `attempt` (2 for the first retry); 0 for the first try.
 * @param {number} attempt
 * @returns {number}
 */
export function backoffCeilingMs(attempt: number): number;
/**
 * The wait before try `attempt`: uniform in [c/2, c].
 * @param {number} attempt
 * @param {() => number} [random] a source of numbers in [0, 1)
 * @returns {number}
 */
export function backoffDelayMs(attempt: number, random?: () => number): number;
/**
 * The wait after a list broadcast that says a slot is free: uniform in [0, SLOT_JITTER_MS].
 * @param {() => number} [random] a source of numbers in [0, 1)
 * @returns {number}
 */
export function slotFreeWaitMs(random?: () => number): number;
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
export function turnedAwayAt(requestAt: number, slotFreeAt: number, jitterMs: number, busyWindowMs?: number): {
    at: number;
    freed: boolean;
};
/**
 * When a back-off that would end at `waitEnd` ends: at a broadcast (`slotFreeAt`, -1 for none)
 * plus `jitterMs`, if that is earlier. `early` says that the broadcast decides.
 * @param {number} waitEnd
 * @param {number} slotFreeAt
 * @param {number} jitterMs
 * @returns {{at: number, early: boolean}}
 */
export function backoffEndsAt(waitEnd: number, slotFreeAt: number, jitterMs: number): {
    at: number;
    early: boolean;
};
/**
 * A repeatable source of numbers in [0, 1) for a given 32-bit seed (mulberry32), for tests and
 * for tools that want to replay a run.
 * @param {number} seed
 * @returns {() => number}
 */
export function seededRandom(seed: number): () => number;
/**
 * Resolves after `ms`, or at once when `signal` aborts.
 * @param {number} ms
 * @param {AbortSignal} [signal]
 * @returns {Promise<void>}
 */
export function sleep(ms: number, signal?: AbortSignal): Promise<void>;
export const BUSY_FIRST_CHUNK_MS: 4000;
export const BACKOFF_BASE_MS: 500;
export const BACKOFF_CAP_MS: 8000;
/** How long after the request a broadcast ahead of any chunk is taken as "turned away". */
export const SLOT_FREE_AFTER_REQUEST_MS: 1500;
/** The random wait after a broadcast that frees a slot is uniform in [0, SLOT_JITTER_MS]. */
export const SLOT_JITTER_MS: 250;
/** The waits of one sequence of tries; the first try waits for nothing. */
export class RetryBackoff {
    /** @param {() => number} [random] a source of numbers in [0, 1) */
    constructor(random?: () => number);
    random: () => number;
    /** Tries counted so far, the first included. */
    tries: number;
    /** The wait before the next try; the first call gives the wait before try 2. */
    nextWait(): number;
    /** The wait after a broadcast that says a slot is free. */
    slotFreeWait(): number;
}
