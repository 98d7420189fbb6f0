// The one error type the library rejects with. Per-file problems (a refused path, a chunk that
// failed its check, a file the server dropped) are never thrown: they are reported in the
// results. Only the failure of a whole operation rejects, with one of these codes.

/**
 * @typedef {'bad_arguments' | 'no_broker' | 'timeout' | 'offline' | 'stopped' | 'closed' | 'failed'} ErrorCode
 */

export class ContextSyncError extends Error {
    /**
     * @param {ErrorCode} code
     * @param {string} message
     */
    constructor(code, message) {
        super(message);
        this.name = 'ContextSyncError';
        /** @type {ErrorCode} */
        this.code = code;
    }
}
