// The page's half of bench/run's browser row: opens the backgrounds page in headless chromium
// (fresh profile, so IndexedDB is empty), connects without credentials, waits until the gallery
// shows every image of the server, and prints one JSON line with the page's own measure of its
// download batch: {"files", "bytes", "ms"} (ms from the download request to the last verified,
// stored and shown file; connecting and the first list are left out, as they are from ctxsync's
// pull time by its no-op pull).
//
//   node web/bench/page_pull.mjs --page http://127.0.0.1:PORT/ --images N [--timeout-s 900]
import puppeteer from 'puppeteer-core';

const argv = process.argv.slice(2);
const option = (name, fallback) => {
    const i = argv.indexOf(name);
    return i >= 0 ? argv[i + 1] : fallback;
};
const page_url = option('--page');
const images = Number(option('--images'));
const timeout_ms = Number(option('--timeout-s', '900')) * 1000;
if (!page_url || !images) {
    console.error('usage: page_pull.mjs --page URL --images N [--timeout-s S]');
    process.exit(2);
}

const browser = await puppeteer.launch({
    executablePath: process.env.CHROMIUM ?? '/usr/bin/chromium',
    headless: true,
    args: ['--no-sandbox', '--disable-gpu', '--disable-dev-shm-usage', '--no-first-run'],
});
try {
    const page = await browser.newPage();
    await page.goto(page_url);
    await page.click('#connect');
    await page.waitForFunction((n) => window.gallery_stats?.batches.length > 0
        && document.querySelectorAll('#gallery li[data-loaded="true"]').length === n,
    { timeout: timeout_ms, polling: 250 }, images);
    const batches = await page.evaluate(() => window.gallery_stats.batches);
    const total = batches.reduce((sum, b) => ({ files: sum.files + b.files, bytes: sum.bytes + b.bytes, ms: sum.ms + b.ms }),
        { files: 0, bytes: 0, ms: 0 });
    console.log(JSON.stringify(total));
} finally {
    await browser.close();
}
