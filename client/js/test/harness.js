// Test support: a real mosquitto on a free loopback port, the real context_sync_server on a
// temporary context root, a websockify in front of the broker for the WebSocket path, and runs
// of the real ctxsync. Paths of the programs come from the environment (set by CTest):
// CONTEXT_SYNC_SERVER, CTXSYNC; the defaults are those of the dev build.
import { spawn, execFile } from 'node:child_process';
import { promises as fs } from 'node:fs';
import net from 'node:net';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

const here = path.dirname(fileURLToPath(import.meta.url));
export const SOURCE_DIR = path.resolve(here, '../../..');
export const IMAGES_DIR = path.join(SOURCE_DIR, 'tests/data/images');
export const SERVER = process.env.CONTEXT_SYNC_SERVER ?? path.join(SOURCE_DIR, 'build/dev/server/host/context_sync_server');
export const CTXSYNC = process.env.CTXSYNC ?? path.join(SOURCE_DIR, 'build/dev/client/ctxsync');

export async function freePort() {
    return new Promise((resolve, reject) => {
        const server = net.createServer();
        server.listen(0, '127.0.0.1', () => {
            const { port } = server.address();
            server.close(() => resolve(port));
        });
        server.on('error', reject);
    });
}

async function waitForPort(port, child, timeoutMs = 10000) {
    const end = Date.now() + timeoutMs;
    while (Date.now() < end) {
        if (child.exitCode !== null) throw new Error(`process exited with ${child.exitCode}`);
        const ok = await new Promise((resolve) => {
            const socket = net.connect(port, '127.0.0.1');
            socket.once('connect', () => {
                socket.destroy();
                resolve(true);
            });
            socket.once('error', () => resolve(false));
        });
        if (ok) return;
        await new Promise((r) => setTimeout(r, 30));
    }
    throw new Error(`nothing listens on ${port}`);
}

export async function tempDir(name = 'ctxjs') {
    return fs.mkdtemp(path.join(os.tmpdir(), `${name}-`));
}

/**
 * A test CA, a server certificate for 127.0.0.1 signed by it, and a second CA that signed nothing.
 * @param {string} dir
 */
async function makeTlsFiles(dir) {
    const ec = ['-newkey', 'ec', '-pkeyopt', 'ec_paramgen_curve:prime256v1', '-nodes'];
    await fs.writeFile(path.join(dir, 'san.ext'), 'subjectAltName=IP:127.0.0.1\n');
    const steps = [
        ['req', '-x509', ...ec, '-keyout', 'ca.key', '-out', 'ca.crt', '-days', '1', '-subj', '/CN=test CA'],
        ['req', '-x509', ...ec, '-keyout', 'other.key', '-out', 'other.crt', '-days', '1', '-subj', '/CN=other CA'],
        ['req', ...ec, '-keyout', 'server.key', '-out', 'server.csr', '-subj', '/CN=127.0.0.1'],
        ['x509', '-req', '-in', 'server.csr', '-CA', 'ca.crt', '-CAkey', 'ca.key', '-CAcreateserial', '-out', 'server.crt', '-days', '1', '-extfile', 'san.ext'],
    ];
    for (const step of steps) {
        const done = await run('openssl', step, { cwd: dir });
        if (done.code !== 0) throw new Error(`openssl ${step[0]}: ${done.stderr}`);
    }
    const file = (name) => path.join(dir, name);
    return { ca: file('ca.crt'), otherCa: file('other.crt'), cert: file('server.crt'), key: file('server.key') };
}

/** Runs a program to its end; resolves {code, stdout, stderr}. */
export function run(program, args, options = {}) {
    return new Promise((resolve) => {
        execFile(program, args, { maxBuffer: 64 << 20, timeout: options.timeoutMs ?? 60000, ...options }, (error, stdout, stderr) =>
            resolve({ code: error ? (typeof error.code === 'number' ? error.code : -1) : 0, stdout, stderr }),
        );
    });
}

/**
 * Broker + server + websockify. `env.brokerUrl` (mqtt://), `env.wsUrl` (ws://), `env.root` (the
 * server's context root), `env.ctxsync(args)`.
 */
export class TestEnvironment {
    /**
     * @param {{websocket?: boolean, web?: string}} [options] web: a folder that websockify serves
     *   over HTTP on the same port (as scripts/run-server serves the page)
     */
    async start({ websocket = true, web, tls = false } = {}) {
        this.dir = await tempDir('ctxjs-env');
        this.root = path.join(this.dir, 'root');
        this.state = path.join(this.dir, 'state');
        await fs.mkdir(path.join(this.root, 'background'), { recursive: true });
        await fs.mkdir(this.state);
        this.brokerPort = await freePort();
        const conf = path.join(this.dir, 'mosquitto.conf');
        const lines = ['log_dest stderr', 'log_type error', 'user root', 'persistence false', 'set_tcp_nodelay true', 'per_listener_settings true'];
        lines.push(`listener ${this.brokerPort} 127.0.0.1`, 'allow_anonymous true');
        if (tls) {
            // A second listener as a device offers it to the network: TLS with a test CA, and
            // user names with passwords.
            this.tls = await makeTlsFiles(this.dir);
            this.tlsPort = await freePort();
            const passwords = path.join(this.dir, 'passwords');
            await fs.writeFile(passwords, '');
            const made = await run('mosquitto_passwd', ['-b', passwords, 'tablet-1', 'secret-1']);
            if (made.code !== 0) throw new Error(`mosquitto_passwd: ${made.stderr}`);
            lines.push(`listener ${this.tlsPort} 127.0.0.1`, 'allow_anonymous false', `password_file ${passwords}`);
            lines.push(`cafile ${this.tls.ca}`, `certfile ${this.tls.cert}`, `keyfile ${this.tls.key}`);
        }
        await fs.writeFile(conf, lines.join('\n') + '\n');
        this.children = [];
        this.broker = this.spawn('mosquitto', ['-c', conf]);
        await waitForPort(this.brokerPort, this.broker);
        this.brokerUrl = `mqtt://127.0.0.1:${this.brokerPort}`;
        this.brokerText = `127.0.0.1:${this.brokerPort}`;
        if (websocket) {
            this.wsPort = await freePort();
            this.websockify = this.spawn('websockify', [...(web ? ['--web', web] : []), `127.0.0.1:${this.wsPort}`, `127.0.0.1:${this.brokerPort}`]);
            await waitForPort(this.wsPort, this.websockify);
            this.wsUrl = `ws://127.0.0.1:${this.wsPort}/`;
            if (tls) {
                // The same bridge over TLS, as a device serves browsers on its network.
                this.wssPort = await freePort();
                const bridge = this.spawn('websockify', ['--ssl-only', '--cert', this.tls.cert, '--key', this.tls.key, `127.0.0.1:${this.wssPort}`, `127.0.0.1:${this.brokerPort}`]);
                await waitForPort(this.wssPort, bridge);
                this.wssUrl = `wss://127.0.0.1:${this.wssPort}/`;
            }
        }
        await this.startServer();
        return this;
    }

    spawn(program, args) {
        const child = spawn(program, args, { stdio: ['ignore', 'ignore', 'pipe'] });
        child.output = '';
        child.stderr.on('data', (d) => (child.output += d));
        this.children.push(child);
        return child;
    }

    async startServer() {
        this.server = spawn(SERVER, ['--root', this.root + '/', '--state-dir', this.state, '--broker', this.brokerText, '--log-level', '2'], {
            stdio: ['ignore', 'pipe', 'pipe'],
        });
        this.server.output = '';
        this.server.stdout.on('data', (d) => (this.server.output += d));
        this.server.stderr.on('data', (d) => (this.server.output += d));
        this.children.unshift(this.server);
        // The retained status turns "online" once the service has subscribed.
        const end = Date.now() + 15000;
        while (Date.now() < end) {
            const { stdout } = await run('mosquitto_sub', ['-h', '127.0.0.1', '-p', String(this.brokerPort), '-t', 'orvane/rr/context_sync/status', '-C', '1', '-W', '1']);
            if (stdout.trim() === 'online') return;
            if (this.server.exitCode !== null) throw new Error(`server exited: ${this.server.output}`);
        }
        throw new Error(`server not online: ${this.server.output}`);
    }

    ctxsync(args, options) {
        return run(CTXSYNC, ['--broker', this.brokerText, ...args], options);
    }

    async stop() {
        for (const child of this.children) {
            if (child.exitCode === null && child.signalCode === null) {
                const exited = new Promise((r) => child.once('exit', r));
                child.kill('SIGTERM');
                await Promise.race([exited, new Promise((r) => setTimeout(r, 5000))]);
                if (child.exitCode === null && child.signalCode === null) child.kill('SIGKILL');
            }
        }
        await fs.rm(this.dir, { recursive: true, force: true });
    }
}

/** Waits until `predicate` (async) is true, polling every 100 ms; false after `timeoutMs`. */
export async function eventually(predicate, timeoutMs = 10000) {
    const end = Date.now() + timeoutMs;
    while (Date.now() < end) {
        if (await predicate()) return true;
        await new Promise((r) => setTimeout(r, 100));
    }
    return false;
}
