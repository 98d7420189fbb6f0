// Benchmark: a pull of the image set by the page in headless chromium, through websockify, against
// the same pull by ctxsync over TCP in the same run. The set is N (default 49) random-pixel
// 640 x 284 PNGs of 1024000 bytes each (two whole chunks, about 50 MB). Prints one table row
// like bench/run's: the browser's rate, ctxsync's rate as the baseline, their ratio, the goal.
//
//   node web/bench/browser_pull.mjs [--images N] [--build-dir build/release]
//
// ctxsync's time has its fixed part taken off (a pull with nothing to fetch: process start,
// connection, list); the page's time runs from its download request to the last verified file,
// stored in IndexedDB and shown. The browser starts with an empty profile, so nothing is cached.
import { mkdirSync, writeFileSync } from 'node:fs';
import { join, resolve } from 'node:path';
import puppeteer from 'puppeteer-core';
import { random_png, test_environment } from '../test/harness.mjs';

const argv = process.argv.slice(2);
const option = (name, fallback) => {
    const i = argv.indexOf(name);
    return i >= 0 ? argv[i + 1] : fallback;
};
const images = Number(option('--images', '49'));
const build = resolve(option('--build-dir', process.env.CONTEXT_SYNC_BUILD_DIR ?? 'build/release'));
process.env.CONTEXT_SYNC_SERVER ??= join(build, 'server', 'host', 'context_sync_server');
process.env.CTXSYNC ??= join(build, 'client', 'ctxsync');
process.env.CONTEXT_SYNC_WEB_DIST ??= resolve('web', 'dist');
const IMAGE_SIZE = 1024000;
const MB = 1e6;

const env = new test_environment({ log_level: 4 });
let browser;
try {
    const files = [];
    for (let i = 0; i < images; ++i) {
        const name = `background/random_${String(i).padStart(3, '0')}.png`;
        const bytes = random_png(IMAGE_SIZE);
        env.seed(name, bytes);
        files.push([name, bytes]);
    }
    const total = images * IMAGE_SIZE;
    await env.start();

    // ctxsync: a pull with nothing to fetch, then the whole set into an empty folder.
    const full = join(env.dir, 'pull_noop');
    for (const [name, bytes] of files) {
        mkdirSync(join(full, 'background'), { recursive: true });
        writeFileSync(join(full, name), bytes);
    }
    const timed = (args) => {
        const t = performance.now();
        const run = env.ctxsync(['--timeout', '60', ...args]);
        if (run.status !== 0) throw new Error(`ctxsync ${args.join(' ')}: ${run.status} ${run.stdout}${run.stderr}`);
        return (performance.now() - t) / 1000;
    };
    const noop = timed(['pull', full]);
    const pull = timed(['pull', join(env.dir, 'pull_empty')]);
    const ctxsync_rate = total / Math.max(pull - noop, 1e-9);

    browser = await puppeteer.launch({ executablePath: process.env.CHROMIUM ?? '/usr/bin/chromium', headless: true,
        args: ['--no-sandbox', '--disable-gpu', '--disable-dev-shm-usage', '--no-first-run'] });
    const page = await browser.newPage();
    await page.goto(env.page_url);
    await page.type('#username', 'web-tester');
    await page.type('#password', env.users['web-tester']);
    await page.click('#connect');
    await page.waitForFunction((n) => window.gallery_stats?.batches.length > 0
        && document.querySelectorAll('#gallery li[data-loaded="true"]').length === n,
    { timeout: 600000, polling: 200 }, images);
    const batch = await page.evaluate(() => window.gallery_stats.batches[0]);
    if (batch.files !== images || batch.bytes !== total) throw new Error(`the page received ${JSON.stringify(batch)}`);
    const browser_rate = total / (batch.ms / 1000);

    const row = (cells) => `| ${cells.join(' | ')} |`;
    console.log(row(['measurement', 'value', 'baseline', 'ratio', 'goal']));
    console.log(row(['-', '-', '-', '-', '-']));
    console.log(row([`8 browser pull ${(total / MB).toFixed(0)} MB via websockify`,
        `${(browser_rate / MB).toFixed(1)} MB/s`, `${(ctxsync_rate / MB).toFixed(1)} MB/s ctxsync pull over TCP`,
        (browser_rate / ctxsync_rate).toFixed(2), '>= 0.6']));
} finally {
    await browser?.close();
    await env.stop();
}
