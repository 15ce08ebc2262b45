import { ControlClient } from './api.js';
import { $, setText, show, toast } from './dom.js';
import { guidePresented, streamStatus } from './state.js';
import { availability } from './sections/availability.js';
import { conversations } from './sections/conversations.js';
import { endpoints } from './sections/endpoints.js';
import { overview } from './sections/overview.js';
import { pairing } from './sections/pairing.js';
import { runtime } from './sections/runtime.js';
import { streaming } from './sections/streaming.js';

const moods = ['dormant', 'idle', 'thinking', 'streaming'];
// A pairing the panel hears of this soon after it happened is still worth celebrating.
const celebrationWindowMs = 20000;
const celebrationShownMs = 9000;

let current = null;
let codeClock = { remaining: 0, at: 0 };
let lastPairedAt;
let celebrationTimer = 0;
let guideDismissed = false;

const client = new ControlClient({
  onState: render,
  onConnection: (ok) => {
    setText($('connection-banner'), ok ? '' : 'Orin Link is not answering. This page catches up as soon as it is back.');
    show($('connection-banner'), !ok && current !== null);
  },
  onUnauthorized: () => {
    show($('app'), false);
    show($('locked'), true);
    if ($('guide').open) $('guide').close();
  },
});

function report(error) {
  toast(error?.message || 'That did not work.', { error: true });
}

async function act(path, body) {
  return client.act(path, body);
}

// Runs an operation from a control, which stays disabled until the application has answered.
async function run(control, path, body) {
  control.disabled = true;
  try {
    await client.act(path, body);
  } catch (error) {
    report(error);
  } finally {
    control.disabled = false;
  }
}

function openGuide() {
  guideDismissed = false;
  act('/api/guide', { presented: true }).catch(() => showGuide(true));
}

const context = { run, act, report, openGuide };
const sections = {
  overview: overview(context),
  pairing: pairing(context),
  streaming: streaming(context),
  runtime: runtime(context),
  endpoints: endpoints(context),
  conversations: conversations(context),
  availability: availability(context),
};

function showSection(name, { focus = false } = {}) {
  for (const item of document.querySelectorAll('.nav-item')) {
    if (item.dataset.section === name) item.setAttribute('aria-current', 'page');
    else item.removeAttribute('aria-current');
  }
  for (const panel of document.querySelectorAll('[data-section-panel]')) {
    show(panel, panel.dataset.sectionPanel === name);
  }
  $('content').scrollTop = 0;
  if (focus) document.querySelector(`.nav-item[data-section="${name}"]`)?.focus();
}

function setupNavigation() {
  const items = [...document.querySelectorAll('.nav-item')];
  for (const item of items) item.addEventListener('click', () => showSection(item.dataset.section));
  $('app').querySelector('.nav').addEventListener('keydown', (event) => {
    const step = { ArrowDown: 1, ArrowUp: -1 }[event.key];
    if (!step) return;
    const index = items.indexOf(document.activeElement);
    if (index < 0) return;
    event.preventDefault();
    const next = items[(index + step + items.length) % items.length];
    next.focus();
    showSection(next.dataset.section);
  });
  for (const tile of document.querySelectorAll('[data-goto]')) {
    tile.addEventListener('click', () => showSection(tile.dataset.goto, { focus: true }));
  }
}

function showGuide(presented) {
  const guide = $('guide');
  if (presented && !guideDismissed && !guide.open) guide.showModal();
  if (!presented && guide.open) guide.close();
}

function dismissGuide() {
  guideDismissed = true;
  if ($('guide').open) $('guide').close();
  act('/api/settings', { hasSeenGuide: true })
    .then(() => act('/api/guide', { presented: false }))
    .catch(() => {});
}

function setupCelebration() {
  $('celebration-close').addEventListener('click', () => {
    clearTimeout(celebrationTimer);
    $('celebration').hidden = true;
  });
}

function setupGuide() {
  $('guide-done').addEventListener('click', dismissGuide);
  $('guide').addEventListener('cancel', (event) => {
    event.preventDefault();
    dismissGuide();
  });
}

function celebrate(name) {
  setText($('celebration-name'), name ?? 'a device');
  const banner = $('celebration');
  // Shown afresh, so its entrance and sparks play again for a second device.
  banner.hidden = true;
  void banner.offsetWidth;
  banner.hidden = false;
  sections.pairing.celebrate(name);
  clearTimeout(celebrationTimer);
  celebrationTimer = setTimeout(() => { banner.hidden = true; }, celebrationShownMs);
}

function noticePairing(s) {
  const at = s.lastPairedAt ?? null;
  if (lastPairedAt === undefined) {
    lastPairedAt = at;
    if (at && Date.now() - new Date(at).getTime() < celebrationWindowMs) celebrate(s.lastPairedDeviceName);
    return;
  }
  if (at && at !== lastPairedAt) celebrate(s.lastPairedDeviceName);
  lastPairedAt = at;
}

function badge(id, text, tone) {
  const node = $(id);
  setText(node, text ?? '');
  node.className = `nav-badge${tone ? ` ${tone}` : ''}`;
  show(node, Boolean(text));
}

function render(s) {
  const first = current === null;
  current = s;
  if (first) {
    show($('locked'), false);
    show($('app'), true);
  }
  const mood = moods.includes(s.orbMood) ? s.orbMood : 'dormant';
  for (const orb of document.querySelectorAll('[data-orb]')) {
    for (const name of moods) orb.classList.toggle(`mood-${name}`, name === mood);
  }
  setText($('last-event'), s.lastEvent ?? '');
  for (const section of Object.values(sections)) section.update(s);

  const code = s.pairing?.code ?? '';
  sections.overview.code(code);
  codeClock = { remaining: s.pairing?.remainingSeconds ?? 0, at: performance.now() };
  tick();
  noticePairing(s);

  const issue = s.setupIssue;
  badge('nav-overview-badge', issue ? '!' : '', 'attention');
  badge('nav-pairing-badge', s.devices?.length ? String(s.devices.length) : '');
  const stream = streamStatus(s);
  badge('nav-streaming-badge', stream.startsWith('Streaming') ? 'Live' : '', 'live');
  const runtimeIssue = issue && ['ollamaNotRunning', 'ollamaNotInstalled', 'modelMissing'].includes(issue.kind);
  badge('nav-runtime-badge', s.runtime?.pull ? '↓' : runtimeIssue ? '!' : '', s.runtime?.pull ? 'live' : 'attention');
  const log = s.conversations?.show ? s.conversations.log ?? [] : [];
  badge('nav-conversations-badge', log.length ? String(log.length) : '');
  showGuide(guidePresented(s));
}

function tick() {
  const remaining = Math.max(0, codeClock.remaining - (performance.now() - codeClock.at) / 1000);
  sections.pairing.tick(remaining);
  sections.overview.tick(remaining);
}

setupNavigation();
setupGuide();
setupCelebration();
setInterval(tick, 500);
setInterval(() => sections.pairing.refreshTimes(), 30000);
try {
  await client.startSession();
} catch {
  show($('connection-banner'), true);
  setText($('connection-banner'), 'Orin Link is not answering. This page catches up as soon as it is back.');
}
client.listen();
