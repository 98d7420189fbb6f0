export class Emitter {
    /** @type {Map<string, Set<Function>>} */
    listeners: Map<string, Set<Function>>;
    /**
     * @param {string} event
     * @param {Function} listener
     * @returns {() => void} removes the listener
     */
    on(event: string, listener: Function): () => void;
    /** @param {string} event @param {Function} listener */
    off(event: string, listener: Function): void;
    /** @param {string} event @param {...any} args */
    emit(event: string, ...args: any[]): void;
}
