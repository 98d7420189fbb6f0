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
export function parseLargeAnswer(body: Uint8Array, broadcast: boolean): Packet | null;
/**
 * Where parseAnswer keeps the UTF-8 bytes of a large "data" text that it did not decode (a key of
 * the payload object; `data` itself then reads them when asked). decodeChunk decodes the Base64
 * straight from them.
 */
export const DATA_BYTES: unique symbol;
export const SERVICE_NAME: "context_sync";
export const DEFAULT_TOPIC_BASE: "orvane";
/** Client ids: 1 to 64 of A-Z a-z 0-9 . _ - ; "all" names the broadcast and cannot be used. */
export const CLIENT_ID_PATTERN: RegExp;
/** Answers from this size on are tried with parseLargeAnswer first (a chunk is about 680 KB). */
export const LARGE_ANSWER: 16384;
export type Packet = {
    type: string;
    subtype: string;
    payload: any;
    /**
     * it came on the broadcast topic
     */
    broadcast: boolean;
};
