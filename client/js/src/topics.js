// The MQTT topics of the context-sync service and the envelopes carried on them.
import { utf8Decode, utf8Encode } from './bytes.js';

/**
 * Where parseAnswer keeps the UTF-8 bytes of a large "data" text that it did not decode (a key of
 * the payload object; `data` itself then reads them when asked). decodeChunk decodes the Base64
 * straight from them.
 */
export const DATA_BYTES = Symbol('data bytes');

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
    if (body.length >= LARGE_ANSWER) {
        const packet = parseLargeAnswer(body, broadcast);
        if (packet) return packet;
    }
    let object;
    try {
        object = JSON.parse(utf8Decode(body));
    } catch {
        return null;
    }
    return packetOf(object, broadcast);
}

/** Answers from this size on are tried with parseLargeAnswer first (a chunk is about 680 KB). */
export const LARGE_ANSWER = 16384;

/** @returns {Packet | null} */
function packetOf(object, broadcast) {
    if (!object || typeof object !== 'object' || Array.isArray(object) || typeof object.type !== 'string') return null;
    const payload = object.payload && typeof object.payload === 'object' ? object.payload : {};
    return { type: object.type, subtype: typeof object.subtype === 'string' ? object.subtype : '', payload, broadcast };
}

const QUOTE = 0x22;
const BACKSLASH = 0x5c;
const DATA_KEY = utf8Encode('"data":"');

/** Index of `needle` in `bytes` from `from`, or -1. */
function indexOfBytes(bytes, needle, from) {
    const first = needle[0];
    for (let i = bytes.indexOf(first, from); i >= 0 && i + needle.length <= bytes.length; i = bytes.indexOf(first, i + 1)) {
        let j = 1;
        while (j < needle.length && bytes[i + j] === needle[j]) j++;
        if (j === needle.length) return i;
    }
    return -1;
}

/**
 * A chunk's Base64 text is nearly all of its message: decoding it as UTF-8 and then as a JSON
 * string costs more than everything else of the chunk. This parses the message without that
 * text: the bytes of the payload's "data" string (no escapes in it) are cut out, the rest (with
 * "data":"") is parsed, and the payload's `data` is left to read the bytes when asked, which
 * decodeChunk does not (it decodes the Base64 from the bytes). Null, and the caller parses the
 * whole message, whenever the cut is not certainly the payload's "data": no such text, an escape
 * in it, the rest not JSON, another "data" key anywhere, or the rest's payload without data "".
 * @param {Uint8Array} body
 * @param {boolean} broadcast
 * @returns {Packet | null}
 */
export function parseLargeAnswer(body, broadcast) {
    const key = indexOfBytes(body, DATA_KEY, 0);
    if (key < 0) return null;
    const start = key + DATA_KEY.length;
    const end = body.indexOf(QUOTE, start);
    if (end < 0) return null;
    const escape = body.indexOf(BACKSLASH, start);
    if (escape >= 0 && escape < end) return null;
    // Cut at two ASCII quotes: both halves are whole UTF-8.
    const rest = utf8Decode(body.subarray(0, start)) + utf8Decode(body.subarray(end));
    // A raw quote is never inside a JSON string, so any other "data" key (or a string ending in
    // data) shows as this text: then the cut may not be the payload's.
    const named = rest.indexOf('"data"');
    if (named < 0 || rest.indexOf('"data"', named + 1) >= 0) return null;
    // A key may also be spelled with \u escapes: those messages take the whole parse.
    if (rest.includes('\\u')) return null;
    let object;
    try {
        object = JSON.parse(rest);
    } catch {
        return null;
    }
    const payload = object?.payload;
    if (!payload || typeof payload !== 'object' || Array.isArray(payload) || payload.data !== '') return null;
    const bytes = body.subarray(start, end);
    let text = null;
    Object.defineProperty(payload, 'data', {
        get: () => (text ??= utf8Decode(bytes)),
        enumerable: true,
        configurable: true,
    });
    Object.defineProperty(payload, DATA_BYTES, { value: bytes });
    return packetOf(object, broadcast);
}
