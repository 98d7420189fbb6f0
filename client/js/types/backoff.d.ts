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
 * Resolves after `ms`, or at once when `signal` aborts.
 * @param {number} ms
 * @param {AbortSignal} [signal]
 * @returns {Promise<void>}
 */
export function sleep(ms: number, signal?: AbortSignal): Promise<void>;
export const BUSY_FIRST_CHUNK_MS: 4000;
export const BACKOFF_BASE_MS: 500;
export const BACKOFF_CAP_MS: 8000;
