// context-sync-client/node: everything of the main entry, plus connections over TCP, TLS and
// WebSocket (through `ws`) and the folder operations of NodeContextSyncClient.
import { createHash } from 'node:crypto';
import WebSocket from 'ws';
import { NodeContextSyncClient } from './node_client.js';
import { connect as connectCore } from '../connection.js';
import { useMd5Implementation } from '../md5.js';
import { useInflateImplementation } from '../chunk.js';
import { inflateSync } from 'node:zlib';

// Node's own MD5 (OpenSSL) instead of the portable one.
useMd5Implementation(() => {
    const hash = createHash('md5');
    return { update: (bytes) => hash.update(bytes), digestHex: () => hash.digest('hex') };
});
// Node's zlib for decompression (any correct inflate gives the same bytes).
useInflateImplementation((stream) => {
    const out = inflateSync(stream);
    return new Uint8Array(out.buffer, out.byteOffset, out.byteLength);
});

export * from '../index.js';
export { NodeContextSyncClient } from './node_client.js';
export { FolderSink, TEMP_PREFIX } from './folder_sink.js';
export { scanFolder, fileMd5 } from './scan.js';

/**
 * connect() for Node: WebSocket URLs open through `ws` (with the TLS options of `options`).
 * @param {import('../connection.js').ConnectOptions} [options]
 */
export function connect(options = {}) {
    return connectCore({
        createWebSocket: (url, protocols) =>
            new WebSocket(url, protocols, {
                ca: options.ca,
                cert: options.cert,
                key: options.key,
                rejectUnauthorized: options.rejectUnauthorized ?? true,
                maxPayload: 256 * 1024 * 1024,
            }),
        ...options,
    });
}

/**
 * Connects and returns a NodeContextSyncClient.
 * @param {import('../connection.js').ConnectOptions} [options]
 * @returns {Promise<NodeContextSyncClient>}
 */
export async function connectClient(options) {
    return new NodeContextSyncClient(await connect(options));
}
