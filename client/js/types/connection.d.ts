/**
 * @param {ConnectOptions} options
 * @returns {string}
 */
export function brokerUrl(options: ConnectOptions): string;
/**
 * Connects to the broker and subscribes to the service's topics. Resolves once the server's
 * retained status has come (or STATUS_WAIT_MS after the subscription when the broker has none).
 * Rejects with code "no_broker" when the broker cannot be reached or refuses the connection
 * within `timeoutMs`.
 * @param {ConnectOptions} [options]
 * @returns {Promise<ContextSyncConnection>}
 */
export function connect(options?: ConnectOptions): Promise<ContextSyncConnection>;
/** The default longest wait for the broker or the server, as ctxsync's --timeout. */
export const DEFAULT_TIMEOUT_MS: 10000;
/** How long connect() waits for the server's retained status after subscribing. */
export const STATUS_WAIT_MS: 1000;
/** Browsers: writes are buffered up to this many bytes; a chunk message is about 680 KB. */
export const BROWSER_BUFFER_SIZE: number;
export class ContextSyncConnection extends Emitter {
    /**
     * Use connect() instead.
     * @param {any} client the MQTT.js client
     * @param {ReturnType<typeof topicsFor>} topics
     * @param {string} clientId
     * @param {ConnectOptions} options
     */
    constructor(client: any, topics: ReturnType<typeof topicsFor>, clientId: string, options: ConnectOptions);
    client: any;
    topics: {
        request: string;
        response: string;
        broadcast: string;
        status: string;
        presence: string;
    };
    clientId: string;
    timeoutMs: number;
    /** The server's retained status: "online", "offline", or "" before it came. */
    serviceStatus: string;
    connected: boolean;
    closed: boolean;
    logger: (level: number, message: string) => void;
    /** @param {number} level @param {string} message */
    log(level: number, message: string): void;
    /**
     * Publishes a request at QoS 1; resolves when the broker has it.
     * @param {string} type
     * @param {unknown} [message] the argument, sent as payload.message
     * @returns {Promise<void>}
     */
    send(type: string, message?: unknown): Promise<void>;
    /**
     * Waits for the first packet that `accept` takes, at most `timeoutMs`; null on time-out, or
     * when `signal` aborts.
     * @param {(packet: import('./topics.js').Packet) => boolean} accept
     * @param {number} timeoutMs
     * @param {AbortSignal} [signal]
     * @returns {Promise<import('./topics.js').Packet | null>}
     */
    nextPacket(accept: (packet: import("./topics.js").Packet) => boolean, timeoutMs: number, signal?: AbortSignal): Promise<import("./topics.js").Packet | null>;
    /**
     * Says "offline" on the presence topic and disconnects cleanly (no Will).
     * @returns {Promise<void>}
     */
    close(): Promise<void>;
}
export type ConnectOptions = {
    /**
     * "mqtt://host:port", "mqtts://host:port", "ws://host:port/path" or "wss://..."
     */
    url?: string;
    /**
     * used with `port` and `transport` when `url` is not given (default 127.0.0.1)
     */
    host?: string;
    /**
     * default 1883 (tcp), 8883 (tls), 80/443 (ws/wss)
     */
    port?: number;
    /**
     * default "tcp" in Node, "ws" in browsers
     */
    transport?: "tcp" | "tls" | "ws" | "wss";
    username?: string;
    password?: string;
    /**
     * default "ctxsync-js-" and 8 random hexadecimal digits
     */
    clientId?: string;
    /**
     * default "orvane"
     */
    topicBase?: string;
    /**
     * longest wait for the broker and, later, for the server (default 10000)
     */
    timeoutMs?: number;
    /**
     * TLS (Node): trusted certificate(s), PEM
     */
    ca?: string | Uint8Array;
    /**
     * TLS (Node): client certificate, PEM
     */
    cert?: string | Uint8Array;
    /**
     * TLS (Node): client key, PEM
     */
    key?: string | Uint8Array;
    /**
     * TLS (Node): default true
     */
    rejectUnauthorized?: boolean;
    /**
     * WebSocket subprotocol, default "binary"
     */
    websocketProtocol?: string;
    createWebSocket?: (url: string, protocols: string[], options: object) => any;
    /**
     * 0 (default): no automatic reconnection
     */
    reconnectPeriodMs?: number;
    /**
     * 2 errors, 3 anomalies, 4 milestones, 6 trace
     */
    log?: (level: number, message: string) => void;
};
import { Emitter } from './emitter.js';
import { topicsFor } from './topics.js';
