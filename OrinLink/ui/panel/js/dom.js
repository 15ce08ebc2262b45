// Small DOM helpers. Text from the application (device names, prompts, replies) only ever goes
// into the page through textContent, never through markup.

export const $ = (id) => document.getElementById(id);

export function el(tag, { className, text, attrs } = {}, ...children) {
  const node = document.createElement(tag);
  if (className) node.className = className;
  if (text !== undefined && text !== null) node.textContent = String(text);
  for (const [name, value] of Object.entries(attrs ?? {})) node.setAttribute(name, value);
  for (const child of children) if (child) node.append(child);
  return node;
}

export function setText(node, text) {
  const value = text === undefined || text === null ? '' : String(text);
  if (node.textContent !== value) node.textContent = value;
}

export function show(node, visible) {
  if (node.hidden === Boolean(visible)) node.hidden = !visible;
}

export function setChecked(control, on) {
  const value = on ? 'true' : 'false';
  if (control.getAttribute('aria-checked') !== value) control.setAttribute('aria-checked', value);
}

// Keeps a container's children in step with a list, reusing the node of each key so that focus
// and running animations survive updates.
export function syncList(container, items, keyOf, create, update) {
  const existing = new Map();
  for (const child of container.children) existing.set(child.dataset.key, child);
  let previous = null;
  for (const item of items) {
    const key = String(keyOf(item));
    let node = existing.get(key);
    if (node) {
      existing.delete(key);
    } else {
      node = create(item);
      node.dataset.key = key;
    }
    update(node, item);
    const expected = previous ? previous.nextSibling : container.firstChild;
    if (node !== expected) container.insertBefore(node, expected);
    previous = node;
  }
  for (const stale of existing.values()) stale.remove();
}

// An input the user is busy with keeps what they typed until they save or leave it.
export function isEditing(input) {
  return document.activeElement === input || input.dataset.dirty === 'true';
}

export function setInputValue(input, value) {
  if (!isEditing(input) && input.value !== String(value ?? '')) input.value = String(value ?? '');
}

export function trackEdits(...inputs) {
  for (const input of inputs) {
    input.addEventListener('input', () => { input.dataset.dirty = 'true'; });
  }
}

export function clearEdits(...inputs) {
  for (const input of inputs) delete input.dataset.dirty;
}

export function formatBytes(bytes) {
  if (!Number.isFinite(bytes) || bytes <= 0) return '0 bytes';
  const units = ['bytes', 'KB', 'MB', 'GB', 'TB'];
  let value = bytes;
  let unit = 0;
  while (value >= 1000 && unit < units.length - 1) {
    value /= 1000;
    unit += 1;
  }
  const digits = unit === 0 || value >= 100 ? 0 : 1;
  return `${value.toFixed(digits)} ${units[unit]}`;
}

export function formatCountdown(seconds) {
  const whole = Math.max(0, Math.floor(seconds));
  return `${Math.floor(whole / 60)}:${String(whole % 60).padStart(2, '0')}`;
}

const relative = new Intl.RelativeTimeFormat(undefined, { numeric: 'auto' });
const timeOfDay = new Intl.DateTimeFormat(undefined, { hour: 'numeric', minute: '2-digit' });
const dayAndMonth = new Intl.DateTimeFormat(undefined, { day: 'numeric', month: 'short' });

export function relativeTime(iso) {
  const date = new Date(iso);
  if (Number.isNaN(date.getTime())) return '';
  const seconds = (date.getTime() - Date.now()) / 1000;
  const steps = [[60, 'second'], [3600, 'minute'], [86400, 'hour'], [604800, 'day']];
  if (Math.abs(seconds) < 45) return 'just now';
  for (let i = 1; i < steps.length; i += 1) {
    if (Math.abs(seconds) < steps[i][0]) return relative.format(Math.round(seconds / steps[i - 1][0]), steps[i][1]);
  }
  return dayAndMonth.format(date);
}

export function clockTime(iso) {
  const date = new Date(iso);
  return Number.isNaN(date.getTime()) ? '' : timeOfDay.format(date);
}

export function calendarDay(iso) {
  const date = new Date(iso);
  return Number.isNaN(date.getTime()) ? '' : dayAndMonth.format(date);
}

export async function copyText(text) {
  try {
    await navigator.clipboard.writeText(text);
    return true;
  } catch {
    const area = el('textarea', { className: 'visually-hidden', attrs: { readonly: '' } });
    area.value = text;
    document.body.append(area);
    area.select();
    const copied = document.execCommand('copy');
    area.remove();
    return copied;
  }
}

let toastTimer = 0;
export function toast(message, { error = false } = {}) {
  const node = $('toast');
  setText(node, message);
  node.classList.toggle('error', error);
  node.hidden = false;
  clearTimeout(toastTimer);
  toastTimer = setTimeout(() => { node.hidden = true; }, error ? 6000 : 2600);
}

// A row of radio buttons moved through with the arrow keys, one tab stop for the group.
export function radioGroup(group, onPick) {
  const radios = () => [...group.querySelectorAll('[role="radio"]')];
  group.addEventListener('click', (event) => {
    const radio = event.target.closest('[role="radio"]');
    if (radio && radio.getAttribute('aria-checked') !== 'true') onPick(radio);
  });
  group.addEventListener('keydown', (event) => {
    const keys = { ArrowRight: 1, ArrowDown: 1, ArrowLeft: -1, ArrowUp: -1 };
    if (!(event.key in keys)) return;
    const all = radios();
    const index = all.indexOf(document.activeElement);
    if (index < 0) return;
    event.preventDefault();
    const next = all[(index + keys[event.key] + all.length) % all.length];
    next.focus();
    onPick(next);
  });
  return (matches) => {
    for (const radio of radios()) {
      const on = matches(radio);
      setChecked(radio, on);
      radio.tabIndex = on ? 0 : -1;
    }
    if (!radios().some((radio) => radio.tabIndex === 0)) {
      const first = radios()[0];
      if (first) first.tabIndex = 0;
    }
  };
}
