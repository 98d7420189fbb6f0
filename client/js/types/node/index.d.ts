/**
 * connect() for Node: WebSocket URLs open through `ws` (with the TLS options of `options`).
 * @param {import('../connection.js').ConnectOptions} [options]
 */
export function connect(options?: import("../connection.js").ConnectOptions): Promise<import("../connection.js").ContextSyncConnection>;
/**
 * Connects and returns a NodeContextSyncClient.
 * @param {import('../connection.js').ConnectOptions} [options]
 * @returns {Promise<NodeContextSyncClient>}
 */
export function connectClient(options?: import("../connection.js").ConnectOptions): Promise<NodeContextSyncClient>;
export * from "../index.js";
export { NodeContextSyncClient } from "./node_client.js";
import { NodeContextSyncClient } from './node_client.js';
export { FolderSink, TEMP_PREFIX } from "./folder_sink.js";
export { scanFolder, fileMd5 } from "./scan.js";
