/**
 * @typedef {'bad_arguments' | 'no_broker' | 'timeout' | 'offline' | 'stopped' | 'closed' | 'failed'} ErrorCode
 */
export class ContextSyncError extends Error {
    /**
     * @param {ErrorCode} code
     * @param {string} message
     */
    constructor(code: ErrorCode, message: string);
    /** @type {ErrorCode} */
    code: ErrorCode;
}
export type ErrorCode = "bad_arguments" | "no_broker" | "timeout" | "offline" | "stopped" | "closed" | "failed";
