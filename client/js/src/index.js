// context-sync-client: the parts that run in browsers and in Node alike.
export { ContextSyncClient } from './client.js';
export { connect, ContextSyncConnection, brokerUrl, DEFAULT_TIMEOUT_MS, BROWSER_BUFFER_SIZE } from './connection.js';
export { ContextSyncError } from './errors.js';
export { CHUNK_SIZE, COMPRESSION_LEVEL, chunkCount, compressFramed, decompressFramed, encodeChunk, decodeChunk, encodeAck, useInflateImplementation } from './chunk.js';
export { md5Hex, Md5, EMPTY_MD5, useMd5Implementation } from './md5.js';
export { contextHash, compareTrees, filesFromPayload, sortedPaths, EMPTY_CONTEXT_HASH } from './tree.js';
export { unsafePathReason, isSafeRelativePath, isIgnoredPath, MAX_PATH_BYTES, BACKGROUND_FOLDER, BACKGROUND_WIDTH, BACKGROUND_HEIGHT, BACKGROUND_MAX_BYTES } from './paths.js';
export { inspectImage } from './image.js';
export { downloadFiles, MemorySink, END_GRACE_MS } from './download.js';
export { uploadFiles, uploadRefusal, MAX_UPLOAD_BYTES } from './upload.js';
export { requestList, requestServerHash, waitForList, removeFiles, renameFile, replaceTree, LIST_RETRY_MS, SERVER_SETTLE_MS } from './requests.js';
export { backoffCeilingMs, backoffDelayMs, slotFreeWaitMs, turnedAwayAt, backoffEndsAt, RetryBackoff, seededRandom, BUSY_FIRST_CHUNK_MS, SLOT_FREE_AFTER_REQUEST_MS, SLOT_JITTER_MS } from './backoff.js';
export { topicsFor, clientIdProblem, DEFAULT_TOPIC_BASE, SERVICE_NAME } from './topics.js';
export { base64Encode, base64Decode } from './bytes.js';
