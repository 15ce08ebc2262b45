import { $, calendarDay, copyText, el, formatCountdown, relativeTime, setText, show, syncList, toast } from '../dom.js';
import { fingerprint } from '../state.js';

const codeLifetime = 600;

export function pairing({ run }) {
  const newCode = $('new-code');
  let payload = '';
  let devices = [];
  let freshName = null;

  newCode.addEventListener('click', () => run(newCode, '/api/pairing/new-code'));
  $('copy-payload').addEventListener('click', async () => {
    if (payload && (await copyText(payload))) toast('Pairing details copied.');
  });

  function removeButton(device) {
    const button = el('button', { className: 'button small danger', text: 'Remove', attrs: { type: 'button' } });
    let armed = 0;
    const disarm = () => {
      clearTimeout(armed);
      armed = 0;
      button.classList.remove('confirming');
      setText(button, 'Remove');
    };
    button.addEventListener('click', () => {
      if (!armed) {
        button.classList.add('confirming');
        setText(button, 'Confirm Remove');
        armed = setTimeout(disarm, 4000);
        return;
      }
      disarm();
      run(button, '/api/devices/remove', { id: button.dataset.id });
    });
    button.addEventListener('blur', disarm);
    button.dataset.id = device.id;
    return button;
  }

  function renderDevices() {
    const list = $('device-list');
    syncList(list, devices, (d) => d.id,
      (device) => el('li', { className: 'list-item' },
        el('span', { className: 'device-glyph', attrs: { 'aria-hidden': 'true' } }),
        el('div', { className: 'list-main' },
          el('span', { className: 'list-title' }),
          el('span', { className: 'list-detail' })),
        removeButton(device)),
      (node, device) => {
        const name = device.displayName ?? 'Device';
        setText(node.querySelector('.device-glyph'), [...name.trim()][0]?.toUpperCase() ?? '·');
        setText(node.querySelector('.list-title'), name);
        const seen = device.lastSeenAt ? `last seen ${relativeTime(device.lastSeenAt)}` : 'not seen since pairing';
        setText(node.querySelector('.list-detail'), `Paired ${calendarDay(device.pairedAt)} · ${seen}`);
        node.querySelector('button').setAttribute('aria-label', `Remove ${name}`);
        node.classList.toggle('fresh', name === freshName);
      });
    show($('device-empty'), devices.length === 0);
  }

  return {
    update(s) {
      const p = s.pairing ?? {};
      setText($('pairing-code'), p.code ?? '');
      if (p.payload && p.payload !== payload) {
        payload = p.payload;
        const image = $('qr-image');
        image.src = `/api/pairing/qr.svg?v=${fingerprint(payload)}`;
        image.alt = `QR code with the pairing details for code ${p.code ?? ''}`;
      }
      devices = s.devices ?? [];
      renderDevices();
    },
    tick(remaining) {
      setText($('countdown-text'), remaining > 0 ? `Expires in ${formatCountdown(remaining)}` : 'Making a new code…');
      const fill = $('countdown-fill');
      fill.style.transform = `scaleX(${Math.max(0, Math.min(1, remaining / codeLifetime))})`;
      fill.classList.toggle('low', remaining < 60);
    },
    // Relative times drift; the list is redrawn now and then without asking the application.
    refreshTimes: renderDevices,
    celebrate(name) {
      freshName = name;
      renderDevices();
    },
  };
}
