// The library in a real browser: Debian's chromium, headless, driven by puppeteer-core, loads the
// library bundled for browsers (esbuild) and talks to the real server through websockify (the
// WebSocket subprotocol "binary"). A 1 MB image travels both ways in whole chunks (messages of
// about 680 KB, more than MQTT.js's default browser write buffer of 512 KiB) byte for byte.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { createHash } from 'node:crypto';
import { promises as fs } from 'node:fs';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import * as esbuild from 'esbuild';
import puppeteer from 'puppeteer-core';
import { TestEnvironment, IMAGES_DIR, tempDir } from './harness.js';

const here = path.dirname(fileURLToPath(import.meta.url));
const CHROMIUM = process.env.CHROMIUM ?? '/usr/bin/chromium';
const md5 = (bytes) => createHash('md5').update(bytes).digest('hex');

let env;
let browser;
let page;
let web;

before(async () => {
    // The page comes from websockify itself, as a deployed page does: a page of another origin
    // (about:blank, file:) may not open connections to the loopback address in chromium.
    web = await tempDir('ctxjs-web');
    const bundle = await esbuild.build({
        entryPoints: [path.join(here, '../src/index.js')],
        bundle: true,
        format: 'iife',
        globalName: 'ContextSync',
        platform: 'browser',
        write: false,
    });
    await fs.writeFile(path.join(web, 'library.js'), bundle.outputFiles[0].text);
    await fs.writeFile(path.join(web, 'index.html'), '<!doctype html><title>library</title><script src="library.js"></script>\n');
    env = await new TestEnvironment().start({ web });
    browser = await puppeteer.launch({ executablePath: CHROMIUM, headless: true, args: ['--no-sandbox', '--disable-gpu'] });
    page = await browser.newPage();
    page.on('console', (message) => message.type() === 'error' && console.error('browser:', message.text()));
    await page.goto(`http://127.0.0.1:${env.wsPort}/index.html`);
    await page.waitForFunction(() => typeof ContextSync === 'object');
});

after(async () => {
    await browser?.close();
    await env?.stop();
    if (web) await fs.rm(web, { recursive: true, force: true });
});

test('in chromium: push and pull a 1 MB image through websockify, byte for byte', async () => {
    const image = await fs.readFile(path.join(IMAGES_DIR, 'padded_1048576.png'));
    const outcome = await page.evaluate(
        async (url, base64) => {
            const bytes = Uint8Array.from(atob(base64), (c) => c.charCodeAt(0));
            const client = await ContextSync.ContextSyncClient.connect({ url, clientId: 'ctxjs-browser', timeoutMs: 15000 });
            const pushed = await client.push([{ path: 'background/from_browser.png', bytes }]);
            const listed = await client.list();
            const pulled = await client.pull(['background/from_browser.png']);
            const data = pulled.data.get('background/from_browser.png');
            const result = {
                status: client.serviceStatus,
                pushed: pushed.files.map((f) => [f.path, f.ok, f.error]),
                contextHash: listed.contextHash,
                serverHash: await client.serverHash(),
                pulled: pulled.files.map((f) => [f.path, f.ok, f.error]),
                md5: data ? ContextSync.md5Hex(data) : '',
                length: data?.length ?? 0,
            };
            await client.close();
            return result;
        },
        env.wsUrl,
        image.toString('base64'),
    );
    assert.equal(outcome.status, 'online');
    assert.deepEqual(outcome.pushed, [['background/from_browser.png', true, '']]);
    assert.deepEqual(await fs.readFile(path.join(env.root, 'background/from_browser.png')), image);
    assert.deepEqual(outcome.pulled, [['background/from_browser.png', true, '']]);
    assert.equal(outcome.length, image.length);
    assert.equal(outcome.md5, md5(image));
    const listed = JSON.parse((await env.ctxsync(['--json', 'list'])).stdout);
    assert.equal(outcome.contextHash, listed.context_hash);
    assert.equal(outcome.serverHash, listed.context_hash);
});
