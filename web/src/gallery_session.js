// The page's connection to the context-sync server: one MQTT client over a WebSocket to
// websockify (subprotocol "binary", which websockify accepts, instead of MQTT.js's "mqtt"), with
// the browser write buffer raised above a chunk message so that chunks are never held back.
// It subscribes to its answers, the broadcasts and the server's retained status, and offers
// list, download, upload, rename and delete. Runs on the page's main thread; events:
//   "connection" {state: "connecting"|"connected"|"reconnecting"|"closed"|"error", message}
//   "status"     {online: boolean}                  the server's retained status
//   "list"       {files: Record<path, md5>}         every list the server sends (answer or broadcast)
//   "changed"    {}                                 the server says its tree may have changed
import mqtt from 'mqtt';
import { CHUNK_SIZE, chunk_count, decode_chunk, encode_chunk, md5_hex } from './chunk_codec.js';

const SERVICE = 'context_sync';
const CLIENT_ID_PATTERN = /^[A-Za-z0-9._-]{1,64}$/;
// Longest wait for an acknowledgement or the next chunk; the server itself gives up after 5 s.
const TRANSFER_TIMEOUT_MS = 10000;
// A chunk message is about 680 KB of JSON; MQTT.js waits browserBufferTimeout whenever the
// socket holds more than browserBufferSize, which by default (512 KiB) is every chunk.
const BROWSER_BUFFER_SIZE = 16 * 1024 * 1024;

/** @param {unknown} error */
function broker_error_text(error) {
    const text = String(/** @type {any} */ (error)?.message ?? error);
    const code = /** @type {any} */ (error)?.code;
    if (code === 4 || code === 5 || code === 134 || code === 135 || /not authori[sz]ed|bad user ?name or password/i.test(text)) {
        return 'The broker refused the user name or password.';
    }
    return `Connection failed: ${text}`;
}

export class gallery_session extends EventTarget {
    /**
     * @param {{url: string, username?: string, password?: string, client_id?: string, topic_base?: string}} options
     */
    constructor(options) {
        super();
        this.url = options.url;
        this.username = options.username ?? '';
        this.password = options.password ?? '';
        this.client_id = options.client_id
            || (this.username && CLIENT_ID_PATTERN.test(this.username) ? this.username
                : `web-${Math.random().toString(16).slice(2, 10)}`);
        const base = options.topic_base || 'orvane';
        this.topics = {
            request: `${base}/rr/${SERVICE}/req/${this.client_id}`,
            answer: `${base}/rr/${SERVICE}/res/${this.client_id}`,
            broadcast: `${base}/rr/${SERVICE}/bcast`,
            status: `${base}/rr/${SERVICE}/status`,
            presence: `${base}/rr/presence/${this.client_id}`,
        };
        /** @type {import('mqtt').MqttClient | null} */
        this.client = null;
        /** @type {Set<(type: string, payload: any) => void>} packet listeners of transfers */
        this.listeners = new Set();
        this.last_error = '';
    }

    /** @param {string} type @param {object} detail */
    emit(type, detail) {
        this.dispatchEvent(new CustomEvent(type, { detail }));
    }

    /** Connects; resolves once subscribed, rejects with a readable message when refused. */
    connect() {
        this.emit('connection', { state: 'connecting', message: `connecting to ${this.url}` });
        const client = mqtt.connect(this.url, {
            clientId: this.client_id,
            username: this.username || undefined,
            password: this.password || undefined,
            protocolVersion: 4,
            clean: true,
            keepalive: 30,
            reconnectPeriod: 2000,
            connectTimeout: 10000,
            browserBufferSize: BROWSER_BUFFER_SIZE,
            browserBufferTimeout: 5,
            will: { topic: this.topics.presence, payload: 'lost', qos: 1, retain: false },
            createWebsocket: (url) => new WebSocket(url, ['binary']),
        });
        this.client = client;
        client.on('message', (topic, payload) => this.on_message(topic, payload));
        client.on('reconnect', () => this.emit('connection', { state: 'reconnecting', message: 'reconnecting' }));
        client.on('offline', () => this.emit('connection', { state: 'reconnecting', message: 'connection lost' }));
        return new Promise((resolve, reject) => {
            let settled = false;
            client.on('error', (error) => {
                this.last_error = broker_error_text(error);
                this.emit('connection', { state: 'error', message: this.last_error });
                if (!settled) {
                    settled = true;
                    // A refused login does not get better by retrying.
                    client.end(true);
                    reject(new Error(this.last_error));
                }
            });
            client.on('connect', async () => {
                try {
                    await client.subscribeAsync([this.topics.answer, this.topics.broadcast, this.topics.status], { qos: 1 });
                    await client.publishAsync(this.topics.presence, 'online', { qos: 1 });
                } catch (error) {
                    if (!settled) { settled = true; reject(error); }
                    return;
                }
                this.emit('connection', { state: 'connected', message: `connected as ${this.client_id}` });
                this.request('ctx_request');
                if (!settled) { settled = true; resolve(undefined); }
            });
        });
    }

    async close() {
        const client = this.client;
        this.client = null;
        if (!client) return;
        if (client.connected) {
            try { await client.publishAsync(this.topics.presence, 'offline', { qos: 1 }); } catch { /* closing anyway */ }
        }
        await client.endAsync();
        this.emit('connection', { state: 'closed', message: 'disconnected' });
    }

    get connected() {
        return !!this.client?.connected;
    }

    /** @param {string} type @param {unknown} [message] */
    request(type, message) {
        if (!this.client) return Promise.reject(new Error('not connected'));
        const body = message === undefined ? { type, payload: {} } : { type, payload: { message } };
        return this.client.publishAsync(this.topics.request, JSON.stringify(body), { qos: 1 });
    }

    /** @param {string} topic @param {Uint8Array} payload */
    on_message(topic, payload) {
        const text = new TextDecoder().decode(payload);
        if (topic === this.topics.status) {
            this.emit('status', { online: text === 'online' });
            if (text === 'online') this.request('ctx_request').catch(() => {});
            return;
        }
        let packet;
        try {
            packet = JSON.parse(text);
        } catch {
            return;
        }
        if (!packet || typeof packet.type !== 'string') return;
        const data = packet.payload ?? {};
        for (const listener of this.listeners) listener(packet.type, data);
        if (packet.type === 'ctx_list' && data && typeof data === 'object') {
            this.emit('list', { files: { ...data } });
        } else if (packet.type === 'state_of_service' || packet.type === 'ready_to_check') {
            this.emit('changed', {});
        }
    }

    /**
     * Downloads files one after the other. Every chunk and every whole file is checked; a file
     * whose MD5 differs from `files[path]` is dropped.
     * @param {string[]} paths
     * @param {Record<string, string>} files  the list the paths come from
     * @param {(path: string, done: number, total: number) => void} [on_progress]
     * @param {(path: string, bytes: Uint8Array) => void} [on_file]
     * @returns {Promise<{received: string[], failed: string[]}>}
     */
    download(paths, files, on_progress, on_file) {
        return new Promise((resolve, reject) => {
            if (paths.length === 0) { resolve({ received: [], failed: [] }); return; }
            const wanted = new Set(paths);
            const received = [];
            const failed = [];
            /** @type {Map<string, {parts: Uint8Array[], next: number, total: number}>} */
            const partial = new Map();
            let timer = 0;
            const finish = () => {
                clearTimeout(timer);
                this.listeners.delete(listener);
                for (const path of wanted) if (!received.includes(path)) failed.push(path);
                resolve({ received, failed });
            };
            const arm = () => {
                clearTimeout(timer);
                timer = setTimeout(finish, TRANSFER_TIMEOUT_MS);
            };
            const listener = (type, chunk) => {
                if (type !== 'ctx_chunk' || !chunk || !wanted.has(chunk.file)) return;
                const index = Number(chunk.chunk_index);
                const total = Number(chunk.total_chunks);
                let state = partial.get(chunk.file);
                if (!state || index === 0) {
                    state = { parts: [], next: 0, total };
                    partial.set(chunk.file, state);
                }
                const bytes = decode_chunk(chunk);
                // A bad chunk gets no acknowledgement; one out of order is acknowledged again if
                // it is a repeat, and otherwise ignored.
                if (!bytes) return;
                arm();
                if (index === state.next) {
                    state.parts.push(bytes);
                    state.next += 1;
                } else if (index >= state.next) {
                    return;
                }
                this.client?.publish(this.topics.request, JSON.stringify(
                    { type: 'ctx_chunk_ack', payload: { message: { file: chunk.file, chunkIndex: index } } }), { qos: 1 });
                const size = state.parts.reduce((sum, part) => sum + part.length, 0);
                on_progress?.(chunk.file, state.next, state.total);
                if (state.next < state.total) return;
                const whole = new Uint8Array(size);
                let at = 0;
                for (const part of state.parts) { whole.set(part, at); at += part.length; }
                partial.delete(chunk.file);
                wanted.delete(chunk.file);
                if (md5_hex(whole) === files[chunk.file]) {
                    received.push(chunk.file);
                    on_file?.(chunk.file, whole);
                } else {
                    failed.push(chunk.file);
                }
                if (wanted.size === 0) finish();
            };
            this.listeners.add(listener);
            arm();
            this.request('ctx_download_request', paths).catch((error) => {
                clearTimeout(timer);
                this.listeners.delete(listener);
                reject(error);
            });
        });
    }

    /**
     * Uploads one file, chunk after chunk, each after the acknowledgement of the one before.
     * Resolves when the last chunk is acknowledged (the file is then in the server's tree);
     * rejects when an acknowledgement does not come.
     * @param {string} path  relative path, for example background/wall.png
     * @param {Uint8Array} bytes
     * @param {(done: number, total: number) => void} [on_progress]
     */
    async upload(path, bytes, on_progress) {
        const total = chunk_count(bytes.length);
        for (let index = 0; index < total; ++index) {
            const chunk = encode_chunk({ file: path, bytes, index, remaining_files: 0 });
            await new Promise((resolve, reject) => {
                const timer = setTimeout(() => {
                    this.listeners.delete(listener);
                    reject(new Error(`the server did not acknowledge chunk ${index + 1} of ${total}`));
                }, TRANSFER_TIMEOUT_MS);
                const listener = (type, ack) => {
                    if (type !== 'ctx_chunk_ack' || !ack || ack.file !== path) return;
                    if (Number(ack.chunkIndex ?? ack.chunk_index) !== index) return;
                    clearTimeout(timer);
                    this.listeners.delete(listener);
                    resolve(undefined);
                };
                this.listeners.add(listener);
                this.request('ctx_chunk', chunk).catch((error) => {
                    clearTimeout(timer);
                    this.listeners.delete(listener);
                    reject(error);
                });
            });
            on_progress?.(Math.min(bytes.length, (index + 1) * CHUNK_SIZE), bytes.length);
        }
    }

    /** @param {string} from @param {string} to */
    rename(from, to) {
        return this.request('ctx_rename_request', [{ [from]: to }]);
    }

    /** @param {string[]} paths */
    remove(paths) {
        return this.request('ctx_delete_request', paths);
    }
}
