// A minimal event emitter that runs unchanged in browsers and in Node.

export class Emitter {
    constructor() {
        /** @type {Map<string, Set<Function>>} */
        this.listeners = new Map();
    }

    /**
     * @param {string} event
     * @param {Function} listener
     * @returns {() => void} removes the listener
     */
    on(event, listener) {
        if (!this.listeners.has(event)) this.listeners.set(event, new Set());
        this.listeners.get(event).add(listener);
        return () => this.off(event, listener);
    }

    /** @param {string} event @param {Function} listener */
    off(event, listener) {
        this.listeners.get(event)?.delete(listener);
    }

    /** @param {string} event @param {...any} args */
    emit(event, ...args) {
        for (const listener of [...(this.listeners.get(event) ?? [])]) {
            try {
                listener(...args);
            } catch (error) {
                // A listener's failure must not break the connection's message handling, nor
                // end the program: it is reported and the other listeners still run.
                console.error(`context-sync-client: a "${event}" listener failed:`, error);
            }
        }
    }
}
