// The backgrounds page: connects to the broker through websockify with the credentials typed in,
// shows the server's backgrounds as a gallery that follows every list the server sends, and lets
// the user add (file picker or drag and drop, checked against the background rule first), rename
// and delete backgrounds. Images are kept in IndexedDB by MD5, so a reload downloads only what
// changed. window.gallery_stats records what came from the server and what from the store.
import { check_background, check_background_name, BACKGROUND_FOLDER, MAX_BACKGROUND_BYTES } from './background_rule.js';
import { contextHash as context_hash, md5Hex as md5_hex } from 'context-sync-client';
import { gallery_session } from './gallery_session.js';
import { install_fast_md5 } from './fast_md5.js';
import { image_cache } from './image_cache.js';

/** @param {string} id */
const $ = (id) => /** @type {HTMLElement} */ (document.getElementById(id));

install_fast_md5();

const cache = new image_cache();
/** @type {gallery_session | null} */
let session = null;
/** @type {Record<string, string>} the last list, path to MD5 */
let files = {};
/** @type {Map<string, string>} MD5 to object URL of the image */
const urls = new Map();
let syncing = false;
let sync_again = false;

const stats = {
    downloaded: /** @type {string[]} */ ([]),
    from_cache: /** @type {string[]} */ ([]),
    lists: 0,
    /** one per download batch: files received, verified bytes, milliseconds from request to end */
    batches: /** @type {{files: number, bytes: number, ms: number}[]} */ ([]),
};
/** @type {any} */ (window).gallery_stats = stats;

// --- messages and transfers -------------------------------------------------------------------

/** @param {'refused'|'error'|'done'|'info'} kind @param {string} text */
function message(kind, text) {
    const item = document.createElement('li');
    item.className = kind;
    item.textContent = text;
    $('messages').prepend(item);
    while ($('messages').children.length > 20) $('messages').lastElementChild?.remove();
    return item;
}

/** A transfer row with a progress bar. @param {string} label */
function transfer_row(label) {
    const item = document.createElement('li');
    item.dataset.state = 'running';
    const name = document.createElement('span');
    name.textContent = label;
    const state = document.createElement('span');
    state.className = 'transfer-state';
    state.textContent = '0 %';
    const bar = document.createElement('progress');
    bar.max = 1;
    bar.value = 0;
    bar.setAttribute('aria-label', label);
    item.append(name, state, bar);
    $('transfers').append(item);
    return {
        /** @param {number} done @param {number} total @param {number} [bytes] for counts of files */
        progress(done, total, bytes) {
            bar.max = total || 1;
            bar.value = done;
            state.textContent = bytes === undefined
                ? `${Math.floor((100 * done) / (total || 1))} %`
                : `${done} of ${total}, ${Math.round(bytes / 1024)} KiB`;
        },
        /** @param {'done'|'failed'} result @param {string} text */
        end(result, text) {
            item.dataset.state = result;
            state.textContent = text;
            setTimeout(() => item.remove(), result === 'done' ? 4000 : 15000);
        },
    };
}

// --- connection -------------------------------------------------------------------------------

/** @param {string} state @param {string} text */
function show_connection(state, text) {
    const node = $('connection-state');
    node.dataset.state = state;
    node.textContent = text;
    /** @type {HTMLButtonElement} */ ($('disconnect')).disabled = state === 'closed' || state === 'error';
}

/** @param {'online'|'offline'|'unknown'} status */
function show_server_status(status) {
    const node = $('server-status');
    node.dataset.status = status;
    node.textContent = status;
}

async function connect() {
    const url = /** @type {HTMLInputElement} */ ($('url')).value.trim();
    const username = /** @type {HTMLInputElement} */ ($('username')).value.trim();
    const password = /** @type {HTMLInputElement} */ ($('password')).value;
    $('login-error').textContent = '';
    if (session) await disconnect();
    localStorage.setItem('gallery.url', url);
    localStorage.setItem('gallery.username', username);
    const current = new gallery_session({ url, username, password });
    session = current;
    current.addEventListener('connection', (event) => {
        if (session !== current) return;
        const { state, message: text } = /** @type {CustomEvent} */ (event).detail;
        show_connection(state, text);
        if (state === 'error') $('login-error').textContent = text;
    });
    current.addEventListener('status', (event) => {
        if (session === current) show_server_status(/** @type {CustomEvent} */ (event).detail.online ? 'online' : 'offline');
    });
    current.addEventListener('list', (event) => {
        if (session === current) on_list(/** @type {CustomEvent} */ (event).detail.files);
    });
    current.addEventListener('changed', () => {
        if (session === current) current.request('ctx_request').catch(() => {});
    });
    try {
        await current.connect();
        localStorage.setItem('gallery.auto', password ? '' : '1');
        /** @type {HTMLDetailsElement} */ ($('login-box')).open = false;
    } catch (error) {
        $('login-error').textContent = String(/** @type {Error} */ (error).message);
        if (session === current) session = null;
    }
}

async function disconnect() {
    const current = session;
    session = null;
    show_server_status('unknown');
    if (current) await current.close();
    show_connection('closed', 'not connected');
}

// --- the list and the gallery -----------------------------------------------------------------

/** @param {Record<string, string>} list */
function on_list(list) {
    files = list;
    stats.lists += 1;
    $('context-hash').textContent = context_hash(files);
    render();
    sync_images();
}

/** Shows what the store has and downloads the rest, one batch at a time. */
async function sync_images() {
    if (syncing) { sync_again = true; return; }
    syncing = true;
    try {
        do {
            sync_again = false;
            const wanted = /** @type {string[]} */ ([]);
            const seen = new Set();
            for (const path of Object.keys(files).sort()) {
                const md5 = files[path];
                if (urls.has(md5) || seen.has(md5)) continue;
                seen.add(md5);
                const blob = await cache.get(md5);
                if (blob) {
                    show_image(md5, blob);
                    stats.from_cache.push(path);
                } else {
                    wanted.push(path);
                }
            }
            render();
            if (wanted.length && session?.connected) {
                const row = transfer_row(`downloading ${wanted.length} image${wanted.length > 1 ? 's' : ''}`);
                /** @type {Record<string, string>} */
                const asked = {};
                for (const path of wanted) asked[path] = files[path];
                const started = performance.now();
                const result = await session.download(asked,
                    (done, total, bytes) => row.progress(done, total, bytes),
                    (path, bytes, md5) => {
                        stats.downloaded.push(path);
                        cache.put(md5, add_image(md5, bytes));
                        render();
                    });
                stats.batches.push({ files: result.files.filter((f) => f.ok).length, bytes: result.bytes,
                    ms: performance.now() - started });
                const failed = result.files.filter((f) => !f.ok && !f.missing);
                row.end(failed.length ? 'failed' : 'done', failed.length ? `${failed.length} not received` : 'done');
                // Files that did not come are asked for again at the next list.
            }
        } while (sync_again);
        cache.prune(new Set(Object.values(files)));
    } finally {
        syncing = false;
    }
}

/**
 * Makes an image of a file's bytes and shows it under its MD5; the Blob goes to the store as it is
 * (no copy of the bytes).
 * @param {string} md5 @param {Uint8Array} bytes @returns {Blob}
 */
function add_image(md5, bytes) {
    const blob = new Blob([bytes], { type: bytes[0] === 0x89 ? 'image/png' : 'image/jpeg' });
    show_image(md5, blob);
    return blob;
}

/** @param {string} md5 @param {Blob} blob */
function show_image(md5, blob) {
    if (!urls.has(md5)) urls.set(md5, URL.createObjectURL(blob));
}

/** Brings the gallery in line with `files`, keeping the cards (and focus) that stay. */
function render() {
    const gallery = $('gallery');
    const paths = Object.keys(files).filter((p) => p.startsWith(BACKGROUND_FOLDER)).sort();
    /** @type {Map<string, HTMLElement>} */
    const cards = new Map();
    for (const card of /** @type {HTMLElement[]} */ ([...gallery.children])) {
        if (files[card.dataset.path ?? ''] === undefined) card.remove();
        else cards.set(card.dataset.path ?? '', card);
    }
    let previous = /** @type {Element | null} */ (null);
    for (const path of paths) {
        const card = cards.get(path) ?? make_card(path);
        update_card(card, files[path]);
        const expected = previous ? previous.nextElementSibling : gallery.firstElementChild;
        if (expected !== card) {
            if (previous) previous.after(card); else gallery.prepend(card);
        }
        previous = card;
    }
    $('gallery-count').textContent = `(${paths.length})`;
    $('gallery-empty').hidden = paths.length > 0;
}

/** @param {string} path */
function make_card(path) {
    const name = path.slice(BACKGROUND_FOLDER.length);
    const card = document.createElement('li');
    card.className = 'card';
    card.dataset.path = path;
    const image = document.createElement('img');
    image.alt = name;
    image.width = 640;
    image.height = 284;
    const label = document.createElement('div');
    label.className = 'name';
    label.textContent = name;
    const actions = document.createElement('div');
    actions.className = 'actions';
    const rename = document.createElement('button');
    rename.type = 'button';
    rename.className = 'rename';
    rename.textContent = 'Rename';
    rename.setAttribute('aria-label', `Rename ${name}`);
    rename.addEventListener('click', () => start_rename(card));
    const remove = document.createElement('button');
    remove.type = 'button';
    remove.className = 'delete';
    remove.textContent = 'Delete';
    remove.setAttribute('aria-label', `Delete ${name}`);
    remove.addEventListener('click', () => confirm_delete(path));
    actions.append(rename, remove);
    card.append(image, label, actions);
    return card;
}

/** @param {HTMLElement} card @param {string} md5 */
function update_card(card, md5) {
    const image = /** @type {HTMLImageElement} */ (card.querySelector('img'));
    const url = urls.get(md5);
    card.dataset.md5 = md5;
    card.dataset.loaded = url ? 'true' : 'false';
    if (url && image.src !== url) image.src = url;
}

/** Turns the card's name into a field; Enter renames, Escape cancels. @param {HTMLElement} card */
function start_rename(card) {
    const path = card.dataset.path ?? '';
    const old_name = path.slice(BACKGROUND_FOLDER.length);
    const label = /** @type {HTMLElement} */ (card.querySelector('.name'));
    const actions = /** @type {HTMLElement} */ (card.querySelector('.actions'));
    const form = document.createElement('form');
    form.className = 'rename-form';
    const input = document.createElement('input');
    input.className = 'rename-input';
    input.value = old_name;
    input.setAttribute('aria-label', `New name for ${old_name}`);
    const save = document.createElement('button');
    save.textContent = 'Save';
    const cancel = document.createElement('button');
    cancel.type = 'button';
    cancel.textContent = 'Cancel';
    form.append(input, save, cancel);
    label.hidden = true;
    actions.hidden = true;
    label.after(form);
    input.focus();
    input.select();
    const close = () => {
        form.remove();
        label.hidden = false;
        actions.hidden = false;
        /** @type {HTMLElement} */ (card.querySelector('.rename')).focus();
    };
    cancel.addEventListener('click', close);
    input.addEventListener('keydown', (event) => {
        if (event.key === 'Escape') { event.preventDefault(); close(); }
    });
    form.addEventListener('submit', (event) => {
        event.preventDefault();
        const new_name = input.value.trim();
        if (new_name === old_name) { close(); return; }
        const problem = check_background_name(new_name)
            || (files[BACKGROUND_FOLDER + new_name] !== undefined ? `"${new_name}" exists already` : '');
        if (problem) {
            message('refused', `Rename of ${old_name} refused: ${problem}`);
            input.focus();
            return;
        }
        close();
        rename(path, BACKGROUND_FOLDER + new_name);
    });
}

/** @param {string} from @param {string} to */
async function rename(from, to) {
    if (!session?.connected) { message('error', 'Not connected: nothing renamed.'); return; }
    message('info', `Renaming ${from} to ${to}...`);
    const result = await session.rename(from, to).catch((error) => ({ ok: false, error: error.message }));
    if (result.ok) message('done', `Renamed ${from} to ${to}.`);
    else message('error', `Rename of ${from} failed: ${result.error}.`);
}

/** @param {string} path */
function confirm_delete(path) {
    const dialog = /** @type {HTMLDialogElement} */ ($('confirm-delete'));
    $('confirm-delete-text').textContent = `Delete ${path.slice(BACKGROUND_FOLDER.length)} from the server? Every client loses it.`;
    dialog.returnValue = '';
    dialog.onclose = async () => {
        if (dialog.returnValue !== 'delete') return;
        if (!session?.connected) { message('error', 'Not connected: nothing deleted.'); return; }
        message('info', `Deleting ${path}...`);
        const result = await session.remove(path).catch((error) => ({ ok: false, error: error.message }));
        if (result.ok) message('done', `Deleted ${path}.`);
        else message('error', `Delete of ${path} failed: ${result.error}.`);
    };
    dialog.showModal();
}

// --- uploads ----------------------------------------------------------------------------------

/** @type {File[]} */
const upload_queue = [];
let uploading = false;

/** @param {Iterable<File>} chosen */
function add_files(chosen) {
    upload_queue.push(...chosen);
    if (!uploading) run_uploads();
}

async function run_uploads() {
    uploading = true;
    try {
        while (upload_queue.length) await upload(/** @type {File} */ (upload_queue.shift()));
    } finally {
        uploading = false;
    }
}

/** Checks one file and sends it when it passes. @param {File} file */
async function upload(file) {
    const name_problem = check_background_name(file.name);
    if (name_problem) { message('refused', `${file.name}: refused, ${name_problem}. Nothing was sent.`); return; }
    // A huge file is refused on its size alone, before it is read.
    const head = new Uint8Array(await file.slice(0, file.size > MAX_BACKGROUND_BYTES ? 65536 : file.size).arrayBuffer());
    const verdict = check_background(head, file.size);
    if (!verdict.valid) { message('refused', `${file.name}: refused, ${verdict.reason}. Nothing was sent.`); return; }
    if (!session?.connected) { message('error', `${file.name}: not connected to the broker. Nothing was sent.`); return; }
    const path = BACKGROUND_FOLDER + file.name;
    const md5 = md5_hex(head);
    const row = transfer_row(`uploading ${file.name}`);
    // The page has the bytes: store them first, so the list that shows the file needs no download.
    await cache.put(md5, add_image(md5, head));
    let result;
    try {
        result = await session.upload(path, head, file.name, (done, total) => row.progress(done, total));
    } catch (error) {
        result = { ok: false, error: /** @type {Error} */ (error).message };
    }
    row.end(result.ok ? 'done' : 'failed', result.ok ? 'kept' : 'failed');
    if (result.ok) message('done', `${file.name}: kept by the server.`);
    else message('error', `${file.name}: ${result.error}.`);
}

// --- start ------------------------------------------------------------------------------------

function start() {
    const default_url = location.host ? `${location.protocol === 'https:' ? 'wss' : 'ws'}://${location.host}/` : '';
    /** @type {HTMLInputElement} */ ($('url')).value = localStorage.getItem('gallery.url') || default_url;
    /** @type {HTMLInputElement} */ ($('username')).value = localStorage.getItem('gallery.username') || '';
    $('login').addEventListener('submit', (event) => { event.preventDefault(); connect(); });
    $('disconnect').addEventListener('click', () => disconnect());

    const input = /** @type {HTMLInputElement} */ ($('file-input'));
    input.addEventListener('change', () => {
        add_files(input.files ?? []);
        input.value = '';
    });
    const zone = $('drop-zone');
    zone.addEventListener('keydown', (event) => {
        if (event.key === 'Enter' || event.key === ' ') { event.preventDefault(); input.click(); }
    });
    zone.addEventListener('dragover', (event) => { event.preventDefault(); zone.classList.add('over'); });
    zone.addEventListener('dragleave', () => zone.classList.remove('over'));
    zone.addEventListener('drop', (event) => {
        event.preventDefault();
        zone.classList.remove('over');
        add_files(event.dataTransfer?.files ?? []);
    });
    render();
    // Connect at once when the last connection needed no password.
    if (localStorage.getItem('gallery.auto') === '1' && /** @type {HTMLInputElement} */ ($('url')).value) connect();
}

start();
