// The control panel in a real browser against a real orinlink: the stand-in as Ollama, the
// reference device client as a device. Screenshots of every section land in PANEL_OUTPUT.

import assert from 'node:assert/strict';
import { spawn, execFile } from 'node:child_process';
import { mkdir, mkdtemp, readFile, rm, writeFile } from 'node:fs/promises';
import { createInterface } from 'node:readline';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { pathToFileURL } from 'node:url';
import { after, before, test } from 'node:test';
import { promisify } from 'node:util';

const env = (name) => {
  const value = process.env[name];
  if (!value) throw new Error(`${name} is not set; run this through ctest`);
  return value;
};
const nodeModules = env('PANEL_NODE_MODULES');
const output = env('PANEL_OUTPUT');
const { chromium } = await import(pathToFileURL(join(nodeModules, 'playwright-core', 'index.mjs')).href)
  .catch(() => { throw new Error(`playwright-core is missing from ${nodeModules}: run scripts/setup.sh`); });

const hostile = '<img src=x onerror=alert(1)>';
const deadline = 15000;
const run = promisify(execFile);

const standInConfig = {
  models: [
    { name: 'plain:1b', reply: 'Hello there.' },
    { name: 'slow:1b', token_rate: 30, reply: 'The sky looks blue because air scatters the short blue wavelengths of sunlight far more than the long red ones, so blue light reaches your eyes from every part of the sky.' },
    // Sixty steps a little apart: slow enough to watch, pause and resume, quick enough for CI.
    { name: 'big:1b', installed: false, pull: { step: 100, step_delay_ms: 60, layers: [
      { digest: 'sha256:bbbbbbbbbbbb0000000000000000000000000000000000000000000000000000', total: 6000 }] } },
  ],
};

let dir;
const children = [];
let orinlink;
let browser;
let page;
let control;
let aiPort;
let secret;
const dialogs = [];
const pageErrors = [];

// Starts a child that announces itself on stdout; resolves with the line the predicate matches.
function startChild(file, args, options, ...wanted) {
  const child = spawn(file, args, { stdio: ['ignore', 'pipe', 'inherit'], ...options });
  children.push(child);
  const lines = createInterface({ input: child.stdout });
  const found = wanted.map(() => null);
  return new Promise((resolve, reject) => {
    const timer = setTimeout(() => reject(new Error(`${file} did not start: ${JSON.stringify(found)}`)), deadline);
    child.once('exit', (code) => reject(new Error(`${file} exited with ${code}`)));
    lines.on('line', (line) => {
      wanted.forEach((pattern, i) => {
        const match = found[i] ?? line.match(pattern);
        if (match) found[i] = match;
      });
      if (found.every(Boolean)) {
        clearTimeout(timer);
        resolve(found);
      }
    });
  });
}

async function api(path) {
  const response = await fetch(`http://127.0.0.1:${control}${path}`, { headers: { Authorization: `Bearer ${secret}` } });
  return response.json();
}

async function device(...args) {
  return run(env('ORINLINK_DEVICE'), ['--host', '127.0.0.1', '--port', String(aiPort), '--state', join(dir, 'device.json'), ...args], { timeout: deadline });
}

async function shoot(name) {
  const file = join(output, `${name}.png`);
  // No hover or focus ring left over from the last click or key.
  await page.mouse.move(1, 1);
  await page.evaluate(() => document.activeElement?.blur());
  await page.evaluate(() => Promise.all(document.getAnimations()
    .filter((animation) => animation instanceof CSSTransition).map((animation) => animation.finished.catch(() => {}))));
  await page.screenshot({ path: file });
  console.log(`screenshot: ${file}`);
}

async function openSection(name) {
  await page.click(`.nav-item[data-section="${name}"]`);
  await page.waitForSelector(`#section-${name}:not([hidden])`);
}

const progress = () => page.$eval('#download-bar', (bar) => Number(bar.getAttribute('aria-valuenow') ?? -1));

before(async () => {
  dir = await mkdtemp(join(tmpdir(), 'orinlink-panel-'));
  await mkdir(output, { recursive: true });
  for (const sub of ['config', 'data', 'home', 'xdg-config', 'xdg-data']) await mkdir(join(dir, sub));
  await mkdir(join(dir, 'run'), { mode: 0o700 });
  await writeFile(join(dir, 'standin.json'), JSON.stringify(standInConfig));
  const [[, standInAddress]] = await startChild(env('OLLAMA_STANDIN'),
    ['--port', '0', '--config', join(dir, 'standin.json'), '--exit-with-parent'], {}, /^listening on (\S+)/);
  await writeFile(join(dir, 'config', 'settings.json'),
    JSON.stringify({ ollamaBaseURL: `http://${standInAddress}`, activeModel: 'big:1b' }));

  // No desktop of any kind: the panel must not depend on one, and nothing may reach the user's.
  const childEnv = { ...process.env, HOME: join(dir, 'home'), XDG_CONFIG_HOME: join(dir, 'xdg-config'),
    XDG_DATA_HOME: join(dir, 'xdg-data'), XDG_RUNTIME_DIR: join(dir, 'run'),
    DBUS_SESSION_BUS_ADDRESS: `unix:path=${join(dir, 'run', 'no-bus')}` };
  delete childEnv.DISPLAY;
  delete childEnv.WAYLAND_DISPLAY;
  const [controlLine, serverLine] = await startChild(env('ORINLINK'),
    ['--config-dir', join(dir, 'config'), '--data-dir', join(dir, 'data'), '--no-advertise',
      '--port', '0', '--control-port', '0', '--stream-port', '0'],
    { env: childEnv }, /Control API on 127\.0\.0\.1:(\d+)/, /Server started on port (\d+)/);
  orinlink = children.at(-1);
  control = Number(controlLine[1]);
  aiPort = Number(serverLine[1]);
  secret = (await readFile(join(dir, 'config', 'control-secret'), 'utf8')).trim();

  browser = await chromium.launch({
    executablePath: process.env.CHROMIUM ?? '/usr/bin/chromium',
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--no-first-run', '--disable-background-networking',
      '--disable-component-update', '--disable-sync'],
  });
  const context = await browser.newContext({ viewport: { width: 760, height: 680 } });
  page = await context.newPage();
  page.setDefaultTimeout(deadline);
  page.on('dialog', (dialog) => { dialogs.push(dialog.message()); dialog.dismiss(); });
  page.on('pageerror', (error) => pageErrors.push(error.message));
  page.on('console', (message) => { if (message.type() === 'error') pageErrors.push(message.text()); });
});

after(async () => {
  await browser?.close();
  const exits = children.map((child) => (child.exitCode === null && child.signalCode === null
    ? new Promise((resolve) => child.once('exit', (code) => resolve(code))) : Promise.resolve(child.exitCode)));
  for (const child of children) child.kill('SIGTERM');
  const [orinlinkExit] = await Promise.all([exits[children.indexOf(orinlink)], ...exits]);
  if (dir) await rm(dir, { recursive: true, force: true });
  // A crash or a leak (under the sanitizers) shows only in how it ends.
  if (orinlink) assert.equal(orinlinkExit, 0, 'orinlink ends cleanly on SIGTERM');
});

test('the secret opens a session and leaves the address bar', async () => {
  await page.goto(`http://127.0.0.1:${control}/#${secret}`);
  await page.waitForSelector('#app:not([hidden])');
  assert.ok(!page.url().includes(secret), page.url());
  const cookie = (await page.context().cookies()).find((c) => c.name === 'orinlink_session');
  assert.ok(cookie, 'the session cookie is set');
  assert.equal(cookie.httpOnly, true);
  assert.equal(cookie.sameSite, 'Strict');
  assert.equal(await page.evaluate(() => document.cookie), '');
});

test('without the secret the page says where to open it', async () => {
  const stranger = await browser.newPage();
  await stranger.goto(`http://127.0.0.1:${control}/`);
  await stranger.waitForSelector('#locked:not([hidden])');
  assert.equal(await stranger.isHidden('#app'), true);
  await stranger.close();
});

test('the first-run guide shows once and is dismissed for good', async () => {
  const state = await api('/api/state');
  if (!('isGuidePresented' in state)) return;
  await page.waitForSelector('#guide[open]');
  await shoot('guide');
  // The dialog closes at once; the application hears of it when the page's request is answered.
  const told = page.waitForResponse((response) => new URL(response.url()).pathname === '/api/guide');
  await page.click('#guide-done');
  await page.waitForFunction(() => !document.querySelector('#guide').open);
  await told;
  const after = await api('/api/state');
  assert.equal(after.hasSeenGuide, true);
  assert.equal(after.isGuidePresented, false);
  await page.reload();
  await page.waitForSelector('#app:not([hidden])');
  assert.equal(await page.$eval('#guide', (guide) => guide.open), false);
});

test('the sections are reachable by keyboard', async () => {
  await page.focus('.nav-item[data-section="overview"]');
  await page.keyboard.press('ArrowDown');
  await page.waitForSelector('#section-pairing:not([hidden])');
  assert.equal(await page.evaluate(() => document.activeElement.dataset.section), 'pairing');
  await page.keyboard.press('ArrowUp');
  await page.waitForSelector('#section-overview:not([hidden])');
});

test('overview', async () => {
  await page.waitForFunction(() => /^\d{3} \d{3}$/.test(document.querySelector('#tile-code').textContent));
  await shoot('overview');
});

test('a device pairs while the panel is open, its hostile name shown as text', async () => {
  await openSection('pairing');
  const code = await page.textContent('#pairing-code');
  assert.match(code, /^\d{3} \d{3}$/);
  await page.waitForFunction(() => document.querySelector('#qr-image').naturalWidth > 0);
  await device('pair', '--code', code, '--device-id', 'panel-test-device', '--name', hostile);
  await page.waitForSelector('#celebration:not([hidden])');
  assert.equal(await page.textContent('#celebration-name'), hostile);
  const names = await page.$$eval('#device-list .list-title', (nodes) => nodes.map((n) => n.textContent));
  assert.deepEqual(names, [hostile]);
  assert.equal(await page.$$eval('#content img:not(#qr-image)', (images) => images.length), 0);
  assert.notEqual(await page.textContent('#pairing-code'), code, 'a used code is replaced');
  await shoot('pairing');
  await page.click('#celebration-close');
  await page.waitForSelector('#celebration', { state: 'hidden' });
});

test('a model download moves, pauses and resumes', async () => {
  await openSection('runtime');
  await page.click('#model-download');
  await page.waitForFunction(() => Number(document.querySelector('#download-bar').getAttribute('aria-valuenow')) > 0);
  const first = await progress();
  await page.waitForFunction((seen) => Number(document.querySelector('#download-bar').getAttribute('aria-valuenow')) > Math.max(seen, 20), first);
  await shoot('runtime');
  await page.click('#download-pause');
  await page.waitForSelector('#download.paused #download-resume:not([hidden])');
  await page.waitForFunction(() => document.querySelector('#last-event').textContent.startsWith('Download paused'));
  const paused = await api('/api/state');
  assert.equal(paused.runtime.pull, null);
  await page.click('#download-resume');
  await page.waitForSelector('#download:not(.paused)');
  await page.waitForFunction(() => document.querySelector('#model-installed').textContent === 'big:1b is downloaded and ready.');
  assert.equal(await page.isHidden('#download'), true);
});

test('switching streaming on changes its status', async () => {
  await openSection('streaming');
  const before = await page.textContent('#stream-status');
  assert.equal(before, 'Streaming is off.');
  await page.click('#stream-switch');
  await page.waitForFunction((old) => document.querySelector('#stream-status').textContent !== old, before);
  const now = await page.textContent('#stream-status');
  console.log(`streaming status after switching on: ${now}`);
  // Without an X display the server still listens; only capture waits for a display.
  assert.match(now, /^Advertising on port \d+(\. Waiting for Vantaro\.|, but streaming is blocked until an X display is available\.)$/);
  assert.equal(await page.getAttribute('#stream-switch', 'aria-checked'), 'true');
  await shoot('streaming');
});

test('a streamed reply grows in the conversation log', async () => {
  await openSection('conversations');
  await page.click('#conversations-switch');
  await page.waitForSelector('#conversations-switch[aria-checked="true"]');
  const reply = device('stream', 'Why is the sky blue?', '--model', 'slow:1b');
  await page.waitForFunction(() => (document.querySelector('.exchange-reply')?.textContent.length ?? 0) > 0);
  const early = await page.textContent('.exchange-reply');
  await page.waitForFunction((seen) => document.querySelector('.exchange-reply').textContent.length > seen, early.length);
  assert.equal(await page.getAttribute('.exchange', 'aria-busy'), 'true');
  await shoot('conversations');
  await reply;
  await page.waitForSelector('.exchange[aria-busy="false"]');
  assert.equal(await page.textContent('.exchange-prompt'), 'Why is the sky blue?');
  assert.equal(await page.textContent('.exchange-device'), hostile);
});

test('the remaining sections', async () => {
  for (const name of ['endpoints', 'availability', 'diagnostics']) {
    await openSection(name);
    await shoot(name);
  }
  const report = await page.textContent('#diagnostics');
  assert.ok(!report.includes(secret));
  await openSection('overview');
  await page.setViewportSize({ width: 720, height: 620 });
  await shoot('overview-720x620');
});

test('nothing ran that the page did not write itself', () => {
  assert.deepEqual(dialogs, []);
  assert.deepEqual(pageErrors, []);
});
