// Builds the page into dist/ (or the folder given as the first argument): app.js bundled by
// esbuild with every dependency inside it, next to index.html and style.css. The result is a
// folder of static files that websockify --web serves; nothing is loaded from elsewhere.
import { build } from 'esbuild';
import { copyFileSync, mkdirSync, rmSync } from 'node:fs';
import { dirname, join, resolve } from 'node:path';
import { fileURLToPath } from 'node:url';

const here = dirname(fileURLToPath(import.meta.url));
const out = resolve(process.argv[2] ?? join(here, 'dist'));
rmSync(out, { recursive: true, force: true });
mkdirSync(out, { recursive: true });
await build({
    entryPoints: [join(here, 'src', 'app.js')],
    outfile: join(out, 'app.js'),
    bundle: true,
    format: 'esm',
    platform: 'browser',
    target: ['chrome100', 'firefox100', 'safari15'],
    minify: true,
    sourcemap: true,
    legalComments: 'linked',
    logLevel: 'warning',
});
for (const file of ['index.html', 'style.css']) copyFileSync(join(here, 'src', file), join(out, file));
console.log(`page built in ${out}`);
