// The page's connection to the context-sync server, on the client library (context-sync-client):
// one MQTT connection over a WebSocket to websockify (the library opens it with the subprotocol
// "binary" and a browser write buffer larger than a chunk message), reconnecting by itself. This
// class turns the library's watch events into DOM events for the page and offers the operations
// the page needs. Runs on the page's main thread; events:
//   "connection" {state: "connecting"|"connected"|"reconnecting"|"closed"|"error", message}
//   "status"     {online: boolean}                  the server's retained status
//   "list"       {files: Record<path, md5>}         every list the server sends (answer or broadcast)
//   "changed"    {}                                 the server says its tree may have changed
import { ContextSyncClient, MemorySink, downloadFiles } from 'context-sync-client';

const CLIENT_ID_PATTERN = /^[A-Za-z0-9._-]{1,64}$/;

/** @param {unknown} error */
function broker_error_text(error) {
    const text = String(/** @type {any} */ (error)?.message ?? error);
    if (/not authori[sz]ed|bad user ?name or password/i.test(text)) {
        return 'The broker refused the user name or password.';
    }
    return `Connection failed: ${text}`;
}

/** A download sink that hands every verified file to the page. */
class page_sink extends MemorySink {
    /** @param {(path: string, bytes: Uint8Array, md5: string) => void} on_file */
    constructor(on_file) {
        super();
        this.on_file = on_file;
    }

    /** @param {string} path @param {Uint8Array[]} parts @param {string} md5 */
    store(path, parts, md5) {
        const error = super.store(path, parts);
        const bytes = this.files.get(path);
        this.files.delete(path);
        if (!error && bytes) this.on_file(path, bytes, md5);
        return error;
    }
}

export class gallery_session extends EventTarget {
    /**
     * @param {{url: string, username?: string, password?: string, client_id?: string, topic_base?: string}} options
     */
    constructor(options) {
        super();
        this.options = options;
        // With the broker's use_username_as_clientid, the ACL ties a user to the client id of
        // its name; anonymous pages get one of their own.
        this.client_id = options.client_id
            || (options.username && CLIENT_ID_PATTERN.test(options.username) ? options.username
                : `web-${Math.random().toString(16).slice(2, 10)}`);
        /** @type {ContextSyncClient | null} */
        this.client = null;
        this.stop_watch = () => {};
    }

    /** @param {string} type @param {object} detail */
    emit(type, detail) {
        this.dispatchEvent(new CustomEvent(type, { detail }));
    }

    /** Connects; resolves once subscribed, rejects with a readable message when refused. */
    async connect() {
        const { url, username, password, topic_base } = this.options;
        this.emit('connection', { state: 'connecting', message: `connecting to ${url}` });
        try {
            this.client = await ContextSyncClient.connect({
                url,
                username: username || undefined,
                password: password || undefined,
                clientId: this.client_id,
                topicBase: topic_base || undefined,
                reconnectPeriodMs: 2000,
            });
        } catch (error) {
            const text = broker_error_text(error);
            this.emit('connection', { state: 'error', message: text });
            throw new Error(text);
        }
        this.stop_watch = this.client.watch((event) => {
            if (event.type === 'ctx_list' && event.files) this.emit('list', { files: event.files });
            else if (event.type === 'service_status') {
                this.emit('status', { online: event.status === 'online' });
                if (event.status === 'online') this.request('ctx_request').catch(() => {});
            } else if (event.type === 'connection_lost') {
                this.emit('connection', { state: 'reconnecting', message: 'connection lost, reconnecting' });
            } else if (event.type === 'reconnected') {
                this.emit('connection', { state: 'connected', message: `connected as ${this.client_id}` });
                this.request('ctx_request').catch(() => {});
            } else if (event.type === 'state_of_service' || event.type === 'ready_to_check') {
                this.emit('changed', {});
            }
        });
        const status = this.client.serviceStatus;
        if (status) this.emit('status', { online: status === 'online' });
        this.emit('connection', { state: 'connected', message: `connected as ${this.client_id}` });
        await this.request('ctx_request');
    }

    async close() {
        const client = this.client;
        this.client = null;
        this.stop_watch();
        if (client) await client.close();
        this.emit('connection', { state: 'closed', message: 'disconnected' });
    }

    get connected() {
        return !!this.client?.connection.connected;
    }

    /** @param {string} type @param {unknown} [message] */
    request(type, message) {
        if (!this.client) return Promise.reject(new Error('not connected'));
        return this.client.connection.send(type, message);
    }

    /**
     * Downloads files; every chunk and every whole file is checked against `files`.
     * @param {Record<string, string>} files  path to MD5 of the files wanted
     * @param {(files_done: number, files_total: number, bytes: number) => void} on_progress
     * @param {(path: string, bytes: Uint8Array, md5: string) => void} on_file
     */
    download(files, on_progress, on_file) {
        if (!this.client) return Promise.reject(new Error('not connected'));
        return downloadFiles(this.client.connection, files, new page_sink(on_file), {
            deadline: Date.now() + 30000,
            onProgress: (p) => on_progress(p.filesDone, p.filesTotal, p.bytes),
        });
    }

    /**
     * Uploads one file and waits for the server's verdict (the list holds it with its MD5).
     * @param {string} path  for example background/wall.png
     * @param {Uint8Array} bytes
     * @param {string} name  the file's own name, for messages
     * @param {(done: number, total: number) => void} on_progress
     */
    async upload(path, bytes, name, on_progress) {
        if (!this.client) throw new Error('not connected');
        const result = await this.client.push([{ path, bytes, file: name }],
            { onProgress: (p) => on_progress(p.bytes, p.totalBytes) });
        return result.files[0];
    }

    /** Renames on the server and waits for the list that shows it. @param {string} from @param {string} to */
    rename(from, to) {
        if (!this.client) return Promise.reject(new Error('not connected'));
        return this.client.mv(from, to);
    }

    /** Deletes on the server and waits for the list that shows it. @param {string} path */
    async remove(path) {
        if (!this.client) throw new Error('not connected');
        return (await this.client.rm([path]))[0];
    }
}
