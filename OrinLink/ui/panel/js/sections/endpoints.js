import { $, clearEdits, copyText, el, setInputValue, setText, syncList, toast, trackEdits } from '../dom.js';
import { setting } from '../state.js';

const kindNames = { localNetwork: 'Local network', tailscale: 'Tailscale', manual: 'Manual' };

export function endpoints({ act, report }) {
  const host = $('manual-host');
  const kind = $('manual-kind');
  const port = $('server-port');
  trackEdits(host, kind, port);
  kind.addEventListener('change', () => { kind.dataset.dirty = 'true'; });

  $('manual-form').addEventListener('submit', (event) => {
    event.preventDefault();
    clearEdits(host, kind);
    act('/api/settings', { manualEndpointHost: host.value.trim(), manualEndpointKind: kind.value }).catch(report);
  });
  $('server-port-form').addEventListener('submit', (event) => {
    event.preventDefault();
    const value = Number(port.value);
    if (!Number.isInteger(value) || value < 1 || value > 65535) {
      report(new Error('Choose a port from 1 to 65535.'));
      return;
    }
    clearEdits(port);
    act('/api/settings', { serverPort: value }).catch(report);
  });

  return {
    update(s) {
      const list = s.endpoints ?? [];
      syncList($('endpoint-list'), list, (e) => `${e.displayName}|${e.host}|${e.port}|${e.connectionKind}`,
        (e) => {
          const copy = el('button', { className: 'button small', text: 'Copy', attrs: { type: 'button' } });
          copy.addEventListener('click', async () => {
            if (await copyText(copy.dataset.address)) toast('Address copied.');
          });
          return el('li', { className: 'list-item' },
            el('div', { className: 'list-main' },
              el('span', { className: 'list-title' }),
              el('span', { className: 'endpoint-host' })),
            el('span', { className: 'pill' }),
            copy);
        },
        (node, e) => {
          const address = `${e.host}:${e.port}`;
          setText(node.querySelector('.list-title'), e.displayName);
          setText(node.querySelector('.endpoint-host'), address);
          setText(node.querySelector('.pill'), kindNames[e.connectionKind] ?? e.connectionKind);
          const copy = node.querySelector('button');
          copy.dataset.address = address;
          copy.setAttribute('aria-label', `Copy ${e.displayName}`);
        });
      setInputValue(host, setting(s, 'manualEndpointHost') ?? '');
      setInputValue(kind, setting(s, 'manualEndpointKind') ?? 'manual');
      setInputValue(port, setting(s, 'serverPort') ?? '');
    },
  };
}
