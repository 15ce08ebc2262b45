import { $, clockTime, el, setChecked, setText, show, syncList } from '../dom.js';

const kept = 20;

export function conversations({ run }) {
  const toggle = $('conversations-switch');
  let on = false;
  setText($('conversations-explainer'),
    `Display only: the last ${kept} exchanges are kept in memory while Orin Link runs — never written to disk, cleared when this is switched off, gone when the app quits.`);
  toggle.addEventListener('click', () => run(toggle, '/api/conversations', { show: !on }));

  return {
    update(s) {
      const c = s.conversations ?? {};
      on = Boolean(c.show);
      setChecked(toggle, on);
      const log = on ? [...(c.log ?? [])].reverse() : [];
      syncList($('conversation-log'), log, (entry) => entry.id,
        () => el('li', { className: 'exchange' },
          el('div', { className: 'exchange-head' },
            el('span', { className: 'exchange-device' }),
            el('time', { className: 'exchange-time' })),
          el('p', { className: 'exchange-prompt' }),
          el('p', { className: 'exchange-reply' })),
        (node, entry) => {
          setText(node.querySelector('.exchange-device'), entry.deviceName);
          const time = node.querySelector('.exchange-time');
          setText(time, clockTime(entry.date));
          time.setAttribute('datetime', entry.date ?? '');
          setText(node.querySelector('.exchange-prompt'), entry.prompt);
          setText(node.querySelector('.exchange-reply'), entry.response);
          node.setAttribute('aria-busy', entry.isComplete ? 'false' : 'true');
        });
      setText($('conversation-empty'), on
        ? 'Nothing yet. Exchanges appear here as your devices ask.'
        : 'Switch this on to watch what your devices ask and what Orin answers.');
      show($('conversation-empty'), log.length === 0);
    },
  };
}
