// The MQTT topics of the context-sync service and the envelopes carried on them.
import { utf8Decode, utf8Encode } from './bytes.js';

export const SERVICE_NAME = 'context_sync';
export const DEFAULT_TOPIC_BASE = 'orvane';
/** Client ids: 1 to 64 of A-Z a-z 0-9 . _ - ; "all" names the broadcast and cannot be used. */
export const CLIENT_ID_PATTERN = /^[A-Za-z0-9._-]{1,64}$/;

/**
 * @param {string} clientId
 * @returns {string | null} why the client id cannot be used, or null
 */
export function clientIdProblem(clientId) {
    if (typeof clientId !== 'string' || !CLIENT_ID_PATTERN.test(clientId))
        return 'a client id is 1 to 64 characters of A-Z a-z 0-9 . _ -';
    if (clientId === 'all') return 'the client id "all" names the broadcast';
    return null;
}

/**
 * @param {string} base
 * @param {string} clientId
 */
export function topicsFor(base, clientId) {
    const service = `${base}/rr/${SERVICE_NAME}`;
    return {
        request: `${service}/req/${clientId}`,
        response: `${service}/res/${clientId}`,
        broadcast: `${service}/bcast`,
        status: `${service}/status`,
        presence: `${base}/rr/presence/${clientId}`,
    };
}

/**
 * The request envelope: {"type", "payload"}; an argument goes into payload.message.
 * @param {string} type
 * @param {unknown} [message]
 * @returns {Uint8Array}
 */
export function requestBody(type, message) {
    const payload = message === undefined ? {} : { message };
    // Keys sorted, as the server's and ctxsync's JSON writer puts them.
    return utf8Encode(JSON.stringify({ payload, type }));
}

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
export function parseAnswer(body, broadcast) {
    let object;
    try {
        object = JSON.parse(utf8Decode(body));
    } catch {
        return null;
    }
    if (!object || typeof object !== 'object' || Array.isArray(object) || typeof object.type !== 'string') return null;
    const payload = object.payload && typeof object.payload === 'object' ? object.payload : {};
    return { type: object.type, subtype: typeof object.subtype === 'string' ? object.subtype : '', payload, broadcast };
}
