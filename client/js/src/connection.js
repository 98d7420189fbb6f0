// One MQTT connection to the context-sync service: subscribes to the client's answer topic, the
// broadcast and the server's retained status, announces the client's presence ("online" on every
// connection, "offline" before a clean close, Will "lost"), publishes requests at QoS 1 and hands
// every answer to its listeners as a parsed packet.
//
// Transports: TCP ("mqtt://", Node only), TLS ("mqtts://", Node only) and WebSocket ("ws://",
// "wss://", browsers and Node). WebSockets open with the subprotocol "binary" by default, the one
// websockify accepts in front of the broker's TCP listener; `createWebSocket` builds the socket
// (the browser's WebSocket by default; context-sync-client/node passes one made with `ws`).
//
// Events: "packet" (Packet), "status" (the server's retained status text, "online"/"offline"),
// "connection_lost" (), "reconnected" ().
import mqtt from 'mqtt';
import { Emitter } from './emitter.js';
import { ContextSyncError } from './errors.js';
import { DEFAULT_TOPIC_BASE, clientIdProblem, parseAnswer, requestBody, topicsFor } from './topics.js';
import { utf8Decode } from './bytes.js';

/** The default longest wait for the broker or the server, as ctxsync's --timeout. */
export const DEFAULT_TIMEOUT_MS = 10000;
/** How long connect() waits for the server's retained status after subscribing. */
export const STATUS_WAIT_MS = 1000;
/** Browsers: writes are buffered up to this many bytes; a chunk message is about 680 KB. */
export const BROWSER_BUFFER_SIZE = 8 * 1024 * 1024;

/**
 * @typedef {object} ConnectOptions
 * @property {string} [url] "mqtt://host:port", "mqtts://host:port", "ws://host:port/path" or "wss://..."
 * @property {string} [host] used with `port` and `transport` when `url` is not given (default 127.0.0.1)
 * @property {number} [port] default 1883 (tcp), 8883 (tls), 80/443 (ws/wss)
 * @property {'tcp' | 'tls' | 'ws' | 'wss'} [transport] default "tcp" in Node, "ws" in browsers
 * @property {string} [username]
 * @property {string} [password]
 * @property {string} [clientId] default "ctxsync-js-" and 8 random hexadecimal digits
 * @property {string} [topicBase] default "orvane"
 * @property {number} [timeoutMs] longest wait for the broker and, later, for the server (default 10000)
 * @property {string | Uint8Array} [ca] TLS (Node): trusted certificate(s), PEM
 * @property {string | Uint8Array} [cert] TLS (Node): client certificate, PEM
 * @property {string | Uint8Array} [key] TLS (Node): client key, PEM
 * @property {boolean} [rejectUnauthorized] TLS (Node): default true
 * @property {string} [websocketProtocol] WebSocket subprotocol, default "binary"
 * @property {(url: string, protocols: string[], options: object) => any} [createWebSocket]
 * @property {number} [reconnectPeriodMs] 0 (default): no automatic reconnection
 * @property {(level: number, message: string) => void} [log] 2 errors, 3 anomalies, 4 milestones, 6 trace
 */

function randomId() {
    const bytes = new Uint8Array(4);
    globalThis.crypto.getRandomValues(bytes);
    return Array.from(bytes, (b) => b.toString(16).padStart(2, '0')).join('');
}

/**
 * @param {ConnectOptions} options
 * @returns {string}
 */
export function brokerUrl(options) {
    if (options.url) return options.url;
    const inBrowser = typeof window !== 'undefined' && typeof window.document !== 'undefined';
    const transport = options.transport ?? (inBrowser ? 'ws' : 'tcp');
    const scheme = { tcp: 'mqtt', tls: 'mqtts', ws: 'ws', wss: 'wss' }[transport];
    if (!scheme) throw new ContextSyncError('bad_arguments', `unknown transport "${transport}"`);
    const port = options.port ?? { tcp: 1883, tls: 8883, ws: 80, wss: 443 }[transport];
    const host = options.host ?? '127.0.0.1';
    return `${scheme}://${host.includes(':') ? `[${host}]` : host}:${port}${scheme.startsWith('ws') ? '/' : ''}`;
}

export class ContextSyncConnection extends Emitter {
    /**
     * Use connect() instead.
     * @param {any} client the MQTT.js client
     * @param {ReturnType<typeof topicsFor>} topics
     * @param {string} clientId
     * @param {ConnectOptions} options
     */
    constructor(client, topics, clientId, options) {
        super();
        this.client = client;
        this.topics = topics;
        this.clientId = clientId;
        this.timeoutMs = options.timeoutMs ?? DEFAULT_TIMEOUT_MS;
        /** The server's retained status: "online", "offline", or "" before it came. */
        this.serviceStatus = '';
        this.connected = true;
        this.closed = false;
        this.logger = options.log ?? (() => {});
    }

    /** @param {number} level @param {string} message */
    log(level, message) {
        try {
            this.logger(level, message);
        } catch {
            // A failing logger is not the connection's problem.
        }
    }

    /**
     * Publishes a request at QoS 1; resolves when the broker has it.
     * @param {string} type
     * @param {unknown} [message] the argument, sent as payload.message
     * @returns {Promise<void>}
     */
    send(type, message) {
        if (this.closed) return Promise.reject(new ContextSyncError('closed', 'the connection is closed'));
        const body = requestBody(type, message);
        return new Promise((resolve, reject) => {
            this.client.publish(this.topics.request, body, { qos: 1 }, (error) => {
                if (error) reject(new ContextSyncError('failed', `cannot publish ${type}: ${error.message}`));
                else resolve();
            });
        });
    }

    /**
     * Waits for the first packet that `accept` takes, at most `timeoutMs`; null on time-out, or
     * when `signal` aborts.
     * @param {(packet: import('./topics.js').Packet) => boolean} accept
     * @param {number} timeoutMs
     * @param {AbortSignal} [signal]
     * @returns {Promise<import('./topics.js').Packet | null>}
     */
    nextPacket(accept, timeoutMs, signal) {
        return new Promise((resolve) => {
            let done = false;
            const finish = (packet) => {
                if (done) return;
                done = true;
                clearTimeout(timer);
                off();
                signal?.removeEventListener('abort', onAbort);
                resolve(packet);
            };
            const onAbort = () => finish(null);
            const off = this.on('packet', (packet) => {
                if (accept(packet)) finish(packet);
            });
            const timer = setTimeout(() => finish(null), Math.max(0, timeoutMs));
            signal?.addEventListener('abort', onAbort);
            if (signal?.aborted) finish(null);
        });
    }

    /**
     * Says "offline" on the presence topic and disconnects cleanly (no Will).
     * @returns {Promise<void>}
     */
    async close() {
        if (this.closed) return;
        this.closed = true;
        if (this.client.connected) {
            await new Promise((resolve) => {
                this.client.publish(this.topics.presence, 'offline', { qos: 1 }, () => resolve());
            });
        }
        await new Promise((resolve) => this.client.end(false, {}, () => resolve()));
        this.connected = false;
    }
}

/**
 * Connects to the broker and subscribes to the service's topics. Resolves once the server's
 * retained status has come (or STATUS_WAIT_MS after the subscription when the broker has none).
 * Rejects with code "no_broker" when the broker cannot be reached or refuses the connection
 * within `timeoutMs`.
 * @param {ConnectOptions} [options]
 * @returns {Promise<ContextSyncConnection>}
 */
export async function connect(options = {}) {
    const clientId = options.clientId ?? `ctxsync-js-${randomId()}`;
    const problem = clientIdProblem(clientId);
    if (problem) throw new ContextSyncError('bad_arguments', `client id "${clientId}" refused: ${problem}`);
    const topics = topicsFor(options.topicBase ?? DEFAULT_TOPIC_BASE, clientId);
    const url = brokerUrl(options);
    const timeoutMs = options.timeoutMs ?? DEFAULT_TIMEOUT_MS;
    const protocol = options.websocketProtocol ?? 'binary';
    const createSocket = options.createWebSocket ?? ((socketUrl) => new globalThis.WebSocket(socketUrl, [protocol]));
    /** @type {any} */
    const mqttOptions = {
        clientId,
        protocolVersion: 4,
        clean: true,
        keepalive: 30,
        connectTimeout: timeoutMs,
        reconnectPeriod: options.reconnectPeriodMs ?? 0,
        username: options.username,
        password: options.password,
        will: { topic: topics.presence, payload: 'lost', qos: 1, retain: false },
        ca: options.ca,
        cert: options.cert,
        key: options.key,
        rejectUnauthorized: options.rejectUnauthorized ?? true,
        browserBufferSize: BROWSER_BUFFER_SIZE,
        browserBufferTimeout: 5,
        createWebsocket: (socketUrl, _protocols, wsOptions) => createSocket(socketUrl, [protocol], wsOptions),
        resubscribe: true,
    };
    const client = mqtt.connect(url, mqttOptions);
    const connection = new ContextSyncConnection(client, topics, clientId, options);

    client.on('message', (topic, body) => {
        if (topic === topics.status) {
            const status = utf8Decode(body);
            connection.serviceStatus = status;
            connection.log(4, `server status: ${status}`);
            connection.emit('status', status);
            return;
        }
        const packet = parseAnswer(body, topic === topics.broadcast);
        if (!packet) {
            connection.log(3, `a message on ${topic} is not an answer envelope, ignored`);
            return;
        }
        connection.emit('packet', packet);
    });

    const announce = () => client.publish(topics.presence, 'online', { qos: 1 });
    await new Promise((resolve, reject) => {
        let settled = false;
        const fail = (text) => {
            if (settled) return;
            settled = true;
            clearTimeout(timer);
            client.end(true);
            reject(new ContextSyncError('no_broker', `cannot connect to the broker at ${url}: ${text}`));
        };
        const timer = setTimeout(() => fail(`no answer within ${timeoutMs} ms`), timeoutMs);
        client.once('error', (error) => fail(error.message));
        client.once('close', () => fail('the connection was closed'));
        client.once('connect', () => {
            client.subscribe([topics.response, topics.broadcast, topics.status], { qos: 1 }, (error, granted) => {
                if (error || !granted || granted.some((g) => g.qos > 2)) return fail(`subscription refused${error ? `: ${error.message}` : ''}`);
                if (settled) return;
                announce();
                // The broker sends the retained status right after the subscription's
                // acknowledgement: wait for it briefly, so that serviceStatus is known on return.
                const done = () => {
                    if (settled) return;
                    settled = true;
                    clearTimeout(timer);
                    clearTimeout(statusTimer);
                    offStatus();
                    resolve();
                };
                const offStatus = connection.on('status', done);
                const statusTimer = setTimeout(done, Math.min(STATUS_WAIT_MS, timeoutMs));
                if (connection.serviceStatus) done();
            });
        });
    });
    client.on('connect', () => {
        if (!connection.connected) {
            connection.connected = true;
            announce();
            connection.emit('reconnected');
        }
    });
    client.on('close', () => {
        if (connection.connected && !connection.closed) {
            connection.connected = false;
            connection.log(3, 'connection to the broker lost');
            connection.emit('connection_lost');
        }
    });
    client.on('error', (error) => connection.log(3, `broker: ${error.message}`));
    connection.log(4, `connected to ${url} as ${clientId}`);
    return connection;
}
