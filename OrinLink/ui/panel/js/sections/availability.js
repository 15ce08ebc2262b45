import { $, copyText, setChecked, setText, show, toast } from '../dom.js';
import { setting } from '../state.js';

export function availability({ run, openGuide }) {
  const switches = [...document.querySelectorAll('[data-setting]')];
  let state = {};
  for (const control of switches) {
    control.addEventListener('click', () => {
      const key = control.dataset.setting;
      run(control, '/api/settings', { [key]: !setting(state, key) });
    });
  }
  $('show-guide').addEventListener('click', openGuide);
  $('copy-diagnostics').addEventListener('click', async () => {
    if (await copyText(state.diagnosticSummary ?? '')) toast('Report copied.');
  });

  return {
    update(s) {
      state = s;
      for (const control of switches) {
        const value = setting(s, control.dataset.setting);
        setChecked(control, Boolean(value));
        control.disabled = value === undefined;
      }
      setText($('availability-error'), s.availabilityError ?? '');
      show($('availability-error'), Boolean(s.availabilityError));
      setText($('diagnostics'), s.diagnosticSummary ?? 'The running Orin Link does not offer a report yet.');
      $('copy-diagnostics').disabled = !s.diagnosticSummary;
    },
  };
}
