// Real processes for the page's tests: a mosquitto with a password file and the deployment ACL on a
// free loopback port, the built context_sync_server on a temporary context root, websockify
// serving the built page and bridging WebSockets to the broker, and the ctxsync command line.
// Paths of the built programs come from the environment (CONTEXT_SYNC_SERVER, CTXSYNC,
// CONTEXT_SYNC_WEB_DIST), which CTest sets.
import { spawn, spawnSync } from 'node:child_process';
import { createHash, randomBytes } from 'node:crypto';
import { mkdtempSync, mkdirSync, readFileSync, rmSync, writeFileSync, existsSync } from 'node:fs';
import { createServer, connect } from 'node:net';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { deflateSync } from 'node:zlib';

export const SERVER_USER = 'context-sync-server';

/** @returns {Promise<number>} */
export function free_port() {
    return new Promise((resolve, reject) => {
        const server = createServer();
        server.listen(0, '127.0.0.1', () => {
            const { port } = /** @type {import('node:net').AddressInfo} */ (server.address());
            server.close(() => resolve(port));
        });
        server.on('error', reject);
    });
}

/** @param {number} ms */
export const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

/** @param {number} port */
export async function wait_port(port, timeout_ms = 10000) {
    const until = Date.now() + timeout_ms;
    while (Date.now() < until) {
        const ok = await new Promise((resolve) => {
            const socket = connect(port, '127.0.0.1', () => { socket.destroy(); resolve(true); });
            socket.on('error', () => resolve(false));
        });
        if (ok) return;
        await sleep(50);
    }
    throw new Error(`nothing listens on 127.0.0.1:${port}`);
}

/**
 * Waits until `test` returns a truthy value; returns it.
 * @template T @param {() => T | Promise<T>} test @param {string} what
 */
export async function eventually(test, what, timeout_ms = 15000) {
    const until = Date.now() + timeout_ms;
    for (;;) {
        const value = await test();
        if (value) return value;
        if (Date.now() > until) throw new Error(`timed out waiting for ${what}`);
        await sleep(50);
    }
}

/** @param {Uint8Array | string} data */
export const md5 = (data) => createHash('md5').update(data).digest('hex');

const CRC_TABLE = Array.from({ length: 256 }, (_, n) => {
    let c = n;
    for (let k = 0; k < 8; ++k) c = c & 1 ? 0xedb88320 ^ (c >>> 1) : c >>> 1;
    return c >>> 0;
});

/** @param {Buffer} bytes */
function crc32(bytes) {
    let c = 0xffffffff;
    for (const b of bytes) c = CRC_TABLE[(c ^ b) & 0xff] ^ (c >>> 8);
    return (c ^ 0xffffffff) >>> 0;
}

/** @param {string} type @param {Buffer} data */
function png_chunk(type, data) {
    const head = Buffer.alloc(8);
    head.writeUInt32BE(data.length, 0);
    head.write(type, 4, 'latin1');
    const crc = Buffer.alloc(4);
    crc.writeUInt32BE(crc32(Buffer.concat([head.subarray(4), data])), 0);
    return Buffer.concat([head, data, crc]);
}

/**
 * A real 640 x 284 RGB PNG of random pixels (it does not compress), padded with a private chunk of
 * random bytes to exactly `size` bytes, so that its chunks are full-size messages on the wire.
 * @param {number} size  at least 560000
 */
export function random_png(size) {
    const width = 640;
    const height = 284;
    const rows = [];
    for (let y = 0; y < height; ++y) rows.push(Buffer.from([0]), randomBytes(width * 3));
    const header = Buffer.alloc(13);
    header.writeUInt32BE(width, 0);
    header.writeUInt32BE(height, 4);
    header.set([8, 2, 0, 0, 0], 8);
    const parts = [Buffer.from([0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a]),
        png_chunk('IHDR', header), png_chunk('IDAT', deflateSync(Buffer.concat(rows), { level: 1 }))];
    const end = png_chunk('IEND', Buffer.alloc(0));
    const used = parts.reduce((sum, p) => sum + p.length, 0) + end.length;
    const padding = size - used - 12;
    if (padding < 0) throw new Error(`a random PNG needs more than ${size} bytes`);
    parts.push(png_chunk('prVt', randomBytes(padding)), end);
    return Buffer.concat(parts);
}

export class test_environment {
    /** @param {{log_level?: number}} [options]  the server's log level (default 6, everything) */
    constructor(options = {}) {
        this.log_level = options.log_level ?? 6;
        this.dir = mkdtempSync(join(tmpdir(), 'context-sync-web-'));
        this.root = join(this.dir, 'context_root');
        this.state = join(this.dir, 'state');
        this.users = { [SERVER_USER]: 'server-secret', 'web-tester': 'page-secret', 'ctxsync-tester': 'cli-secret' };
        /** @type {import('node:child_process').ChildProcess[]} */
        this.processes = [];
        this.server_path = required_env('CONTEXT_SYNC_SERVER');
        this.ctxsync_path = required_env('CTXSYNC');
        this.web_dir = required_env('CONTEXT_SYNC_WEB_DIST');
        mkdirSync(join(this.root, 'background'), { recursive: true });
        mkdirSync(this.state, { recursive: true });
    }

    /** @param {string} name @param {Uint8Array} bytes  a file in the context root before the server starts */
    seed(name, bytes) {
        writeFileSync(join(this.root, name), bytes);
    }

    /** @param {string} command @param {string[]} args @param {string} log */
    spawn(command, args, log) {
        const child = spawn(command, args, { stdio: ['ignore', 'pipe', 'pipe'] });
        const out = [];
        child.stdout?.on('data', (d) => out.push(d));
        child.stderr?.on('data', (d) => out.push(d));
        child.on('exit', () => writeFileSync(join(this.dir, log), Buffer.concat(out)));
        this.processes.push(child);
        return child;
    }

    async start() {
        this.broker_port = await free_port();
        this.web_port = await free_port();
        const passwords = join(this.dir, 'passwd');
        writeFileSync(passwords, '');
        for (const [user, password] of Object.entries(this.users)) {
            const run = spawnSync('mosquitto_passwd', ['-b', passwords, user, password], { encoding: 'utf8' });
            if (run.status !== 0) throw new Error(`mosquitto_passwd: ${run.stderr}`);
        }
        // The ACL of docs/deployment.md: each client reads and writes only its own topics.
        writeFileSync(join(this.dir, 'acl'), [
            `user ${SERVER_USER}`, 'topic readwrite orvane/rr/#', '',
            'pattern write orvane/rr/+/req/%c', 'pattern read orvane/rr/+/res/%c',
            'pattern read orvane/rr/+/bcast', 'pattern read orvane/rr/+/status',
            'pattern write orvane/rr/presence/%c', ''].join('\n'));
        writeFileSync(join(this.dir, 'mosquitto.conf'), [
            'per_listener_settings false', 'allow_anonymous false',
            `password_file ${passwords}`, `acl_file ${join(this.dir, 'acl')}`,
            'log_dest stderr', 'log_type all', 'user root', 'persistence false', 'set_tcp_nodelay true',
            `listener ${this.broker_port} 127.0.0.1`, 'use_username_as_clientid true', ''].join('\n'));
        this.spawn('mosquitto', ['-c', join(this.dir, 'mosquitto.conf')], 'mosquitto.log');
        await wait_port(this.broker_port);

        writeFileSync(join(this.dir, 'server-settings.json'), JSON.stringify({
            static: { orvane: {
                paths: { client_communication: this.state, logs: join(this.state, 'logs') },
                comunication: { mqtt: { host: '127.0.0.1', port: this.broker_port, client_id: SERVER_USER,
                    username: SERVER_USER, password: this.users[SERVER_USER] } },
            } },
        }));
        this.server = this.spawn(this.server_path, ['--root', `${this.root}/`,
            '--config', join(this.dir, 'server-settings.json'),
            '--broker', `127.0.0.1:${this.broker_port}`, '--log-level', String(this.log_level)], 'server.out');

        this.spawn('websockify', ['--web', this.web_dir, `127.0.0.1:${this.web_port}`,
            `127.0.0.1:${this.broker_port}`], 'websockify.log');
        await wait_port(this.web_port);
        // The server is ready when it answers a list.
        await eventually(() => this.ctxsync(['list']).status === 0, 'the server\'s first list');
    }

    get page_url() {
        return `http://127.0.0.1:${this.web_port}/`;
    }

    /** The server's log file (every level: it names each file it receives). */
    get server_log() {
        return readFileSync(join(this.state, 'logs', 'server-orvane.log'), 'utf8');
    }

    /** Runs ctxsync with the tester's credentials. @param {string[]} args */
    ctxsync(args) {
        return spawnSync(this.ctxsync_path, ['--broker', `127.0.0.1:${this.broker_port}`,
            '--username', 'ctxsync-tester', '--password', this.users['ctxsync-tester'],
            '--client-id', 'ctxsync-tester', '--json', ...args], { encoding: 'utf8', timeout: 30000 });
    }

    /** @param {string} relative @returns {Buffer | null} */
    read(relative) {
        const file = join(this.root, relative);
        return existsSync(file) ? readFileSync(file) : null;
    }

    async stop() {
        // The server first, so that its goodbye goes through the broker that is still up.
        const order = [this.server, ...[...this.processes].reverse().filter((c) => c !== this.server)];
        for (const child of order) {
            if (!child) continue;
            if (child.exitCode !== null) continue;
            const exited = new Promise((resolve) => child.on('exit', resolve));
            child.kill('SIGTERM');
            await Promise.race([exited, sleep(5000)]);
            if (child.exitCode === null) child.kill('SIGKILL');
        }
        if (!process.env.CONTEXT_SYNC_KEEP_TEST_DIR) rmSync(this.dir, { recursive: true, force: true });
    }
}

/** @param {string} name */
function required_env(name) {
    const value = process.env[name];
    if (!value) throw new Error(`${name} is not set (CTest sets it; see web/README.md)`);
    return value;
}
