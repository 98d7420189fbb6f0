// The page in headless chromium (puppeteer-core, Debian's /usr/bin/chromium) against the real
// server, a mosquitto with passwords and the deployment ACL, and websockify serving the built
// page. The images on the server are real chunked transfers: two of them are random-pixel PNGs of
// about 1 MB, whose chunk messages are about 680 KB each. The steps share one browser and one
// server and run in order.
import { after, before, test } from 'node:test';
import assert from 'node:assert/strict';
import { mkdirSync, readFileSync, writeFileSync } from 'node:fs';
import { join, dirname } from 'node:path';
import { fileURLToPath } from 'node:url';
import puppeteer from 'puppeteer-core';
import { createHash } from 'node:crypto';
import { spawnSync } from 'node:child_process';
import { eventually, free_port, md5, random_png, test_environment, wait_port } from './harness.mjs';

const sha256 = (bytes) => createHash('sha256').update(bytes).digest('hex');

const images = join(dirname(fileURLToPath(import.meta.url)), '..', '..', 'tests', 'data', 'images');
const artifacts = process.env.CONTEXT_SYNC_WEB_ARTIFACTS
    ?? join(dirname(fileURLToPath(import.meta.url)), '..', 'dist-test');

const env = new test_environment();
/** @type {import('puppeteer-core').Browser} */
let browser;
/** @type {import('puppeteer-core').Page} */
let page;
const small = readFileSync(join(images, 'bg_640x284.png'));
const big = random_png(1000000);        // 2 chunks
const upload = random_png(1040000);     // 3 chunks
const pushed = readFileSync(join(images, 'bg_640x284_baseline.jpg'));
const later = readFileSync(join(images, 'bg_640x284_progressive.jpg'));

/** Paths, MD5s and load state of the gallery's cards. */
function gallery() {
    return page.$$eval('#gallery li.card', (cards) => cards.map((c) => ({
        path: c.getAttribute('data-path'), md5: c.getAttribute('data-md5'), loaded: c.getAttribute('data-loaded'),
    })));
}

/** SHA-256 hex of the bytes the card's image shows, read back from the page's own object URL. */
function shown_sha256(path) {
    return page.evaluate(async (p) => {
        const image = document.querySelector(`#gallery li[data-path="${p}"] img`);
        const digest = await crypto.subtle.digest('SHA-256', await (await fetch(image.src)).arrayBuffer());
        return Array.from(new Uint8Array(digest)).map((b) => b.toString(16).padStart(2, '0')).join('');
    }, path);
}

/** @param {string} username @param {string} password */
async function log_in(username, password) {
    await page.$eval('#login-box', (d) => { d.open = true; });
    await page.$eval('#username', (e) => { e.value = ''; });
    await page.$eval('#password', (e) => { e.value = ''; });
    await page.type('#username', username);
    await page.type('#password', password);
    await page.click('#connect');
}

async function messages() {
    return page.$$eval('#messages li', (items) => items.map((i) => `${i.className}|${i.textContent}`));
}

before(async () => {
    env.seed('background/small.png', small);
    env.seed('background/big.png', big);
    await env.start();
    browser = await puppeteer.launch({
        executablePath: process.env.CHROMIUM ?? '/usr/bin/chromium',
        headless: true,
        // The TLS step's certificate is made on the spot and signed by nobody.
        args: ['--no-sandbox', '--disable-gpu', '--disable-dev-shm-usage', '--no-first-run',
            '--ignore-certificate-errors'],
    });
    page = await browser.newPage();
    await page.setViewport({ width: 1100, height: 900 });
    page.on('pageerror', (error) => console.log(`page error: ${error.message}`));
    await page.goto(env.page_url);
});

after(async () => {
    await browser?.close();
    await env.stop();
});

test('the page is served by websockify and asks for the broker at its own host', async () => {
    assert.equal(await page.$eval('#url', (e) => e.value), `ws://127.0.0.1:${env.web_port}/`);
    assert.equal(await page.$eval('#connection-state', (e) => e.textContent), 'not connected');
});

test('a wrong password gets a clear error and no connection', async () => {
    await log_in('web-tester', 'not-the-password');
    await page.waitForFunction(() => document.querySelector('#login-error').textContent !== '');
    assert.equal(await page.$eval('#login-error', (e) => e.textContent),
        'The broker refused the user name or password.');
    assert.equal(await page.$eval('#connection-state', (e) => e.dataset.state), 'error');
    assert.deepEqual(await gallery(), []);
});

test('with the right password the page shows the server\'s images, its status and hash', async () => {
    await log_in('web-tester', env.users['web-tester']);
    await page.waitForSelector('#connection-state[data-state="connected"]');
    await page.waitForSelector('#server-status[data-status="online"]');
    await page.waitForFunction(() => document.querySelectorAll('#gallery li[data-loaded="true"]').length === 2);
    assert.deepEqual(await gallery(), [
        { path: 'background/big.png', md5: md5(big), loaded: 'true' },
        { path: 'background/small.png', md5: md5(small), loaded: 'true' },
    ]);
    // What the images show are the bytes on the server's disk.
    for (const [path, bytes] of [['background/big.png', big], ['background/small.png', small]]) {
        assert.equal(await shown_sha256(path), sha256(bytes), path);
    }
    const listed = JSON.parse(env.ctxsync(['list']).stdout);
    assert.equal(await page.$eval('#context-hash', (e) => e.textContent), listed.context_hash);
    assert.deepEqual(await page.evaluate(() => window.gallery_stats.downloaded.sort()),
        ['background/big.png', 'background/small.png']);
});

test('a valid image uploaded through the file input reaches the disk byte for byte; a wrong-sized one is refused first', async () => {
    const dir = join(env.dir, 'to-upload');
    mkdirSync(dir, { recursive: true });
    writeFileSync(join(dir, 'upload.png'), upload);
    const input = await page.$('#file-input');
    // The refused file first: the page works through its queue in order, so once the valid file is
    // on the disk, the refused one would have been sent before it.
    await input.uploadFile(join(images, 'bg_284x640.jpg'), join(dir, 'upload.png'));
    await eventually(() => env.read('background/upload.png')?.equals(upload), 'upload.png on the disk');
    assert.ok(env.read('background/upload.png').equals(upload));
    assert.equal(env.read('background/bg_284x640.jpg'), null);
    // The server's log names every file it receives: the valid one, and not the refused one.
    assert.ok(env.server_log.includes('Receive file background/upload.png'));
    assert.ok(!env.server_log.includes('bg_284x640'), 'the refused file reached the server');
    assert.ok((await messages()).includes(
        'refused|bg_284x640.jpg: refused, wrong size: 284 x 640 pixels, exactly 640 x 284 required. Nothing was sent.'));
    await page.waitForSelector('#gallery li[data-path="background/upload.png"][data-loaded="true"]');
    await page.waitForFunction(() => [...document.querySelectorAll('#messages li.done')]
        .some((m) => m.textContent === 'upload.png: kept by the server.'));
    // Its progress bar ran to the end (the row stays a few seconds after the transfer).
    assert.deepEqual(await page.$$eval('#transfers li', (rows) => rows
        .filter((r) => r.firstElementChild.textContent === 'uploading upload.png')
        .map((r) => [r.dataset.state, r.querySelector('.transfer-state').textContent,
            r.querySelector('progress').value, r.querySelector('progress').max])),
    [['done', 'kept', upload.length, upload.length]]);
    // The page had the bytes already: the list that shows the file downloads nothing.
    assert.ok(!(await page.evaluate(() => window.gallery_stats.downloaded)).includes('background/upload.png'));
});

test('an image dropped on the drop zone is uploaded', async () => {
    const dropped = readFileSync(join(images, 'bg_640x284_exif.jpg'));
    await page.evaluate((base64) => {
        const bytes = Uint8Array.from(atob(base64), (c) => c.charCodeAt(0));
        const transfer = new DataTransfer();
        transfer.items.add(new File([bytes], 'dropped.jpg', { type: 'image/jpeg' }));
        const zone = document.querySelector('#drop-zone');
        zone.dispatchEvent(new DragEvent('dragover', { dataTransfer: transfer, bubbles: true, cancelable: true }));
        zone.dispatchEvent(new DragEvent('drop', { dataTransfer: transfer, bubbles: true, cancelable: true }));
    }, dropped.toString('base64'));
    await eventually(() => env.read('background/dropped.jpg')?.equals(dropped), 'dropped.jpg on the disk');
    await page.waitForSelector('#gallery li[data-path="background/dropped.jpg"][data-loaded="true"]');
});

test('bad names and huge files are refused in the page', async () => {
    const dir = join(env.dir, 'bad');
    mkdirSync(dir, { recursive: true });
    writeFileSync(join(dir, 'huge.png'), Buffer.concat([small, Buffer.alloc(3 * 1048576)]));
    writeFileSync(join(dir, 'notes.png'), 'just some text\n');
    writeFileSync(join(dir, '.hidden.png'), small);
    const input = await page.$('#file-input');
    await input.uploadFile(join(dir, 'huge.png'), join(dir, 'notes.png'), join(dir, '.hidden.png'));
    await page.waitForFunction(() => document.querySelectorAll('#messages li.refused').length >= 4);
    const all = await messages();
    for (const text of [
        'refused|huge.png: refused, too large: 3147450 bytes, at most 1048576 allowed. Nothing was sent.',
        'refused|notes.png: refused, not an image: only JPEG and PNG are kept. Nothing was sent.',
        'refused|.hidden.png: refused, the name may not start with "." (hidden files are not kept). Nothing was sent.',
    ]) assert.ok(all.includes(text), `${text} not in ${JSON.stringify(all)}`);
});

test('a rename made with the keyboard reaches the disk', async () => {
    await page.focus('#gallery li[data-path="background/small.png"] button.rename');
    await page.keyboard.press('Enter');
    await page.waitForSelector('#gallery li[data-path="background/small.png"] input.rename-input');
    assert.equal(await page.evaluate(() => document.activeElement.className), 'rename-input');
    await page.keyboard.down('Control');
    await page.keyboard.press('a');
    await page.keyboard.up('Control');
    await page.keyboard.type('renamed.png');
    await page.keyboard.press('Enter');
    await eventually(() => env.read('background/renamed.png')?.equals(small) && env.read('background/small.png') === null,
        'the renamed file on the disk');
    await page.waitForSelector('#gallery li[data-path="background/renamed.png"][data-loaded="true"]');
    await page.waitForFunction(() => !document.querySelector('#gallery li[data-path="background/small.png"]'));
});

test('a delete made in the page asks first and reaches the disk', async () => {
    await page.focus('#gallery li[data-path="background/big.png"] button.delete');
    await page.keyboard.press('Enter');
    await page.waitForSelector('#confirm-delete[open]');
    assert.equal(await page.$eval('#confirm-delete-text', (e) => e.textContent),
        'Delete big.png from the server? Every client loses it.');
    // Cancel is focused first: Enter there keeps the file.
    await page.keyboard.press('Enter');
    await page.waitForSelector('#confirm-delete:not([open])');
    await page.click('#gallery li[data-path="background/big.png"] button.delete');
    await page.waitForSelector('#confirm-delete[open]');
    await page.click('#confirm-delete-ok');
    await eventually(() => env.read('background/big.png') === null, 'big.png gone from the disk');
    assert.ok(env.read('background/renamed.png').equals(small));
    await page.waitForFunction(() => !document.querySelector('#gallery li[data-path="background/big.png"]'));
});

test('a push made by ctxsync shows in the open page within 3 s, without reload', async () => {
    const file = join(env.dir, 'pushed.jpg');
    writeFileSync(file, pushed);
    const run = env.ctxsync(['push', file]);
    assert.equal(run.status, 0, run.stdout + run.stderr);
    await page.waitForSelector('#gallery li[data-path="background/pushed.jpg"][data-loaded="true"]', { timeout: 3000 });
    assert.equal(await page.$eval('#gallery li[data-path="background/pushed.jpg"]', (e) => e.dataset.md5), md5(pushed));
    const listed = JSON.parse(env.ctxsync(['list']).stdout);
    await page.waitForFunction((h) => document.querySelector('#context-hash').textContent === h, {}, listed.context_hash);
});

test('the gallery fits a phone screen; screenshots are written', async () => {
    mkdirSync(artifacts, { recursive: true });
    await page.screenshot({ path: join(artifacts, 'gallery.png'), fullPage: true });
    // Width only: turning on isMobile would make puppeteer reload the page.
    await page.setViewport({ width: 360, height: 740 });
    assert.equal(await page.evaluate(() => document.documentElement.scrollWidth <= window.innerWidth), true);
    assert.equal(await page.$$eval('#gallery li[data-loaded="true"]', (cards) => cards.length), 4);
    await page.screenshot({ path: join(artifacts, 'gallery-phone.png'), fullPage: true });
    await page.setViewport({ width: 1100, height: 900 });
});

test('a reload takes the images from IndexedDB and downloads only what changed meanwhile', async () => {
    assert.equal(await page.$eval('#connection-state', (e) => e.dataset.state), 'connected');
    await page.click('#disconnect');
    await page.waitForSelector('#connection-state[data-state="closed"]');
    const file = join(env.dir, 'later.jpg');
    writeFileSync(file, later);
    assert.equal(env.ctxsync(['push', file]).status, 0);
    await page.reload();
    await log_in('web-tester', env.users['web-tester']);
    await page.waitForFunction(() => document.querySelectorAll('#gallery li[data-loaded="true"]').length === 5);
    assert.deepEqual((await gallery()).map((c) => c.path),
        ['background/dropped.jpg', 'background/later.jpg', 'background/pushed.jpg', 'background/renamed.png',
            'background/upload.png']);
    assert.deepEqual(await page.evaluate(() => window.gallery_stats.downloaded), ['background/later.jpg']);
    assert.deepEqual(await page.evaluate(() => window.gallery_stats.from_cache.sort()),
        ['background/dropped.jpg', 'background/pushed.jpg', 'background/renamed.png', 'background/upload.png']);
    // What the store gave back are the bytes on the server's disk.
    assert.equal(await shown_sha256('background/upload.png'), sha256(upload));
    assert.equal(await shown_sha256('background/renamed.png'), sha256(small));
});

test('served over TLS by websockify (--cert, --key, --ssl-only), the page connects with wss', async () => {
    const key = join(env.dir, 'web.key');
    const certificate = join(env.dir, 'web.crt');
    const made = spawnSync('openssl', ['req', '-x509', '-newkey', 'ec', '-pkeyopt', 'ec_paramgen_curve:prime256v1',
        '-nodes', '-keyout', key, '-out', certificate, '-days', '1', '-subj', '/CN=127.0.0.1',
        '-addext', 'subjectAltName=IP:127.0.0.1'], { encoding: 'utf8' });
    assert.equal(made.status, 0, made.stderr);
    const port = await free_port();
    env.spawn('websockify', ['--web', env.web_dir, '--cert', certificate, '--key', key, '--ssl-only',
        `127.0.0.1:${port}`, `127.0.0.1:${env.broker_port}`], 'websockify-tls.log');
    await wait_port(port);
    const secure = await browser.newPage();
    try {
        await secure.goto(`https://127.0.0.1:${port}/`);
        assert.equal(await secure.$eval('#url', (e) => e.value), `wss://127.0.0.1:${port}/`);
        await secure.type('#username', 'web-tester');
        await secure.type('#password', env.users['web-tester']);
        await secure.click('#connect');
        await secure.waitForSelector('#server-status[data-status="online"]');
        await secure.waitForFunction(() => document.querySelectorAll('#gallery li[data-loaded="true"]').length === 5);
    } finally {
        await secure.close();
    }
});

test('when the server stops, the page shows it offline', async () => {
    assert.equal(await page.$eval('#server-status', (e) => e.dataset.status), 'online');
    env.server.kill('SIGTERM');
    await page.waitForSelector('#server-status[data-status="offline"]');
    assert.equal(await page.$eval('#connection-state', (e) => e.dataset.state), 'connected');
});
