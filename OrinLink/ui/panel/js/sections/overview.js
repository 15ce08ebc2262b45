import { $, copyText, formatCountdown, setText, show, toast } from '../dom.js';
import { shortModelName, streamStatus } from '../state.js';

export function overview({ run }) {
  const setupAction = $('setup-action');
  const serviceToggle = $('service-toggle');
  let issueKind = null;
  let command = '';
  let serverRunning = false;

  setupAction.addEventListener('click', () =>
    run(setupAction, '/api/setup/action', issueKind ? { kind: issueKind } : {}));
  $('setup-copy-button').addEventListener('click', async () => {
    if (await copyText(command)) toast('Command copied.');
  });
  serviceToggle.addEventListener('click', () =>
    run(serviceToggle, serverRunning ? '/api/server/stop' : '/api/server/start'));

  return {
    update(s) {
      setText($('presence'), s.presenceSentence ?? '');
      setText($('stats-line'), s.statsLine ?? '');
      show($('stats-line'), Boolean(s.statsLine));

      const issue = s.setupIssue ?? null;
      show($('setup-card'), Boolean(issue));
      if (issue) {
        issueKind = issue.kind ?? issue.id ?? null;
        command = issue.copyCommand ?? '';
        setText($('setup-title'), issue.title);
        setText($('setup-message'), issue.message ?? issue.detail ?? '');
        setText(setupAction, issue.actionTitle ?? 'Fix');
        setText($('setup-command'), command);
        show($('setup-copy'), Boolean(command));
      }

      const devices = s.devices ?? [];
      setText($('tile-devices'), devices.length);
      setText($('tile-devices-detail'), devices.length === 0 ? 'None paired yet'
        : devices.length === 1 ? devices[0].displayName : `${devices.length} devices paired`);

      const stream = s.screenStream;
      setText($('tile-stream'), streamStatus(s));
      setText($('tile-stream-detail'), stream ? (stream.enabled ? stream.summary : 'Switched off') : 'Not available');

      const runtime = s.runtime ?? {};
      setText($('tile-model'), shortModelName(runtime.activeModel ?? ''));
      setText($('tile-model-detail'), !runtime.available ? 'Ollama not reachable'
        : !runtime.activeModelInstalled ? 'Not downloaded yet'
        : runtime.modelResidentSince ? 'Loaded and warm' : 'Ready, loads on first use');

      const server = s.server ?? {};
      serverRunning = Boolean(server.running);
      setText($('service-status'), serverRunning
        ? `Answering paired devices on port ${server.port}.` : 'Stopped. Devices cannot reach this computer.');
      setText(serviceToggle, serverRunning ? 'Stop Server' : 'Start Server');
      serviceToggle.classList.toggle('primary', !serverRunning);
      setText($('service-error'), server.error ?? '');
      show($('service-error'), Boolean(server.error));
    },
    tick(remaining) {
      setText($('tile-code-detail'), remaining > 0 ? `${formatCountdown(remaining)} left` : 'Making a new code…');
    },
    code(code) {
      setText($('tile-code'), code || '— — —');
    },
  };
}
