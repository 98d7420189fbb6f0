// The page's background rule on the real image fixtures of tests/data/images: every verdict,
// size and reason exactly, and, when CTXSYNC names the built command line client, the same
// valid/refused verdict as `ctxsync inspect-image` gives for every file.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { readFileSync, readdirSync } from 'node:fs';
import { spawnSync } from 'node:child_process';
import { dirname, join } from 'node:path';
import { fileURLToPath } from 'node:url';
import { check_background, check_background_name } from '../src/background_rule.js';

const images = join(dirname(fileURLToPath(import.meta.url)), '..', '..', 'tests', 'data', 'images');
const read = (name) => new Uint8Array(readFileSync(join(images, name)));

const expected = {
    'bg_640x284.png': [true, 'PNG', 640, 284, ''],
    'bg_640x284_baseline.jpg': [true, 'JPEG', 640, 284, ''],
    'bg_640x284_exif.jpg': [true, 'JPEG', 640, 284, ''],
    'bg_640x284_progressive.jpg': [true, 'JPEG', 640, 284, ''],
    'padded_1048576.png': [true, 'PNG', 640, 284, ''],
    'padded_1048577.png': [false, 'PNG', 0, 0, 'too large: 1048577 bytes, at most 1048576 allowed'],
    'bg_284x640.jpg': [false, 'JPEG', 284, 640, 'wrong size: 284 x 640 pixels, exactly 640 x 284 required'],
    'bg_640x284.gif': [false, 'GIF', 0, 0, 'GIF is not supported: only JPEG and PNG are kept'],
    'bg_640x284.webp': [false, 'WEBP', 0, 0, 'WEBP is not supported: only JPEG and PNG are kept'],
    'first_chunk_not_ihdr.png': [false, 'PNG', 0, 0, 'broken PNG: its first chunk is not the image header'],
    'sof9_only.jpg': [false, 'JPEG', 0, 0, 'unsupported JPEG: no baseline or progressive frame header'],
};

test('every fixture gets its exact verdict', () => {
    const files = readdirSync(images).filter((f) => !f.endsWith('.sh')).sort();
    assert.deepEqual(files, Object.keys(expected).sort());
    for (const [name, [valid, format, width, height, reason]] of Object.entries(expected)) {
        const bytes = read(name);
        assert.deepEqual(check_background(bytes),
            { valid, format, width, height, bytes: bytes.length, reason }, name);
    }
});

test('the first 64 KiB and the size give the same verdict as the whole file', () => {
    for (const name of Object.keys(expected)) {
        const bytes = read(name);
        assert.deepEqual(check_background(bytes.subarray(0, 65536), bytes.length),
            check_background(bytes), name);
    }
});

test('content decides, not the name: a PNG named .jpg is a PNG; text named .png is refused', () => {
    assert.equal(check_background(read('bg_640x284.png')).format, 'PNG');
    const text = new TextEncoder().encode('not an image at all, just text\n');
    assert.deepEqual(check_background(text), { valid: false, format: 'UNKNOWN', width: 0, height: 0,
        bytes: text.length, reason: 'not an image: only JPEG and PNG are kept' });
    assert.equal(check_background(new Uint8Array(0)).reason, 'not an image: only JPEG and PNG are kept');
    // A JPEG cut inside its segments has no frame header.
    assert.equal(check_background(read('bg_640x284_baseline.jpg').subarray(0, 30), 30).reason,
        'unsupported JPEG: no baseline or progressive frame header');
});

test('names: one segment, no escapes, no hidden or working files', () => {
    assert.equal(check_background_name('wall.png'), '');
    assert.equal(check_background_name('sunset over the sea.jpg'), '');
    assert.equal(check_background_name(''), 'the name is empty');
    assert.equal(check_background_name('../etc/passwd'), 'the name may not contain "/" or "\\"');
    assert.equal(check_background_name('a\\b.png'), 'the name may not contain "/" or "\\"');
    assert.equal(check_background_name('..'), 'the name may not be "." or ".."');
    assert.equal(check_background_name('.'), 'the name may not be "." or ".."');
    assert.equal(check_background_name('.hidden.png'), 'the name may not start with "." (hidden files are not kept)');
    assert.equal(check_background_name('tmp_x.png'), 'names starting with TMP_ are the server\'s working files');
    assert.equal(check_background_name('a\nb.png'), 'the name may not contain control characters');
    assert.equal(check_background_name('é'.repeat(128)), 'the name is longer than 255 bytes');
});

test('the same verdicts as ctxsync inspect-image', { skip: !process.env.CTXSYNC && 'CTXSYNC not set' }, () => {
    const names = Object.keys(expected).sort();
    // Exit code 5: some files are refused, which is what this set is made of.
    const run = spawnSync(process.env.CTXSYNC,
        ['--json', 'inspect-image', ...names.map((n) => join(images, n))], { encoding: 'utf8' });
    assert.equal(run.status, 5, run.stderr);
    const theirs = JSON.parse(run.stdout).files;
    assert.equal(theirs.length, names.length);
    for (const file of theirs) {
        const name = file.file.split('/').pop();
        assert.equal(check_background(read(name)).valid, file.valid, name);
    }
});
