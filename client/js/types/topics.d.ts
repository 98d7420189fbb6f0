/**
 * @param {string} clientId
 * @returns {string | null} why the client id cannot be used, or null
 */
export function clientIdProblem(clientId: string): string | null;
/**
 * @param {string} base
 * @param {string} clientId
 */
export function topicsFor(base: string, clientId: string): {
    request: string;
    response: string;
    broadcast: string;
    status: string;
    presence: string;
};
/**
 * The request envelope: {"type", "payload"}; an argument goes into payload.message.
 * @param {string} type
 * @param {unknown} [message]
 * @returns {Uint8Array}
 */
export function requestBody(type: string, message?: unknown): Uint8Array;
/**
 * @typedef {object} Packet
 * @property {string} type
 * @property {string} subtype
 * @property {any} payload
 * @property {boolean} broadcast it came on the broadcast topic
 */
/**
 * Parses an answer envelope; null when the body is not a JSON object with a string "type".
 * @param {Uint8Array} body
 * @param {boolean} broadcast
 * @returns {Packet | null}
 */
export function parseAnswer(body: Uint8Array, broadcast: boolean): Packet | null;
export const SERVICE_NAME: "context_sync";
export const DEFAULT_TOPIC_BASE: "orvane";
/** Client ids: 1 to 64 of A-Z a-z 0-9 . _ - ; "all" names the broadcast and cannot be used. */
export const CLIENT_ID_PATTERN: RegExp;
export type Packet = {
    type: string;
    subtype: string;
    payload: any;
    /**
     * it came on the broadcast topic
     */
    broadcast: boolean;
};
