import { $, clearEdits, el, radioGroup, setChecked, setInputValue, setText, show, syncList, trackEdits } from '../dom.js';
import { streamStatus } from '../state.js';

export function streaming({ run, act, report }) {
  const enabledSwitch = $('stream-switch');
  const mergeSwitch = $('merge-switch');
  const displaySelect = $('display-select');
  const fpsSelect = $('fps-select');
  const portInput = $('stream-port-input');
  let stream = null;
  trackEdits(portInput);

  const apply = (changes) => act('/api/screen-stream/settings', changes).catch(report);

  enabledSwitch.addEventListener('click', () =>
    run(enabledSwitch, '/api/screen-stream/enable', { on: !stream?.enabled }));
  mergeSwitch.addEventListener('click', () =>
    run(mergeSwitch, '/api/screen-stream/settings',
      { virtualDisplayReplacesDesktop: !stream?.settings?.virtualDisplayReplacesDesktop }));
  const pickShape = radioGroup($('shape-group'), (radio) => apply({ virtualDisplayPreset: Number(radio.dataset.shape) }));
  const pickHeight = radioGroup($('resolution-group'), (radio) => apply({ resolutionHeight: Number(radio.dataset.height) }));
  displaySelect.addEventListener('change', () => apply({ selectedDisplayID: Number(displaySelect.value) }));
  fpsSelect.addEventListener('change', () => apply({ framesPerSecond: Number(fpsSelect.value) }));
  $('refresh-displays').addEventListener('click', (event) => run(event.currentTarget, '/api/screen-stream/refresh-displays'));
  $('stream-port-form').addEventListener('submit', async (event) => {
    event.preventDefault();
    const port = Number(portInput.value);
    if (!Number.isInteger(port) || port < 1 || port > 65535) {
      report(new Error('Choose a port from 1 to 65535.'));
      return;
    }
    clearEdits(portInput);
    await apply({ streamPort: port });
  });

  function fillDisplays(displays, selected) {
    const options = [{ id: 0, name: 'First available display' }, ...displays];
    syncList(displaySelect, options, (d) => d.id,
      (d) => el('option', { attrs: { value: String(d.id) } }),
      (node, d) => setText(node, d.name));
    displaySelect.value = String(options.some((d) => d.id === selected) ? selected : 0);
  }

  return {
    update(s) {
      stream = s.screenStream ?? null;
      show($('stream-unavailable'), !stream);
      show($('stream-body'), Boolean(stream));
      if (!stream) return;
      const settings = stream.settings ?? {};

      setChecked(enabledSwitch, stream.enabled);
      setText($('stream-status'), stream.status ?? '');
      const value = streamStatus(s);
      const pill = $('stream-value');
      setText(pill, value);
      pill.className = `pill${value.startsWith('Streaming') ? ' live' : ''}`;
      setText($('stream-summary'), stream.summary ?? '');
      setText($('stream-port'), stream.port ? `Listening on ${stream.port}` : 'Not listening');
      const clients = stream.clients ?? [];
      syncList($('stream-clients'), clients, (name) => name, () => el('li'), (node, name) => setText(node, name));
      show($('stream-clients-none'), clients.length === 0);
      setText($('stream-rejection'), stream.lastRejection ?? '');
      show($('stream-rejection'), Boolean(stream.lastRejection));
      setText($('stream-error'), stream.error ?? '');
      show($('stream-error'), Boolean(stream.error));

      const shape = settings.virtualDisplayPreset ?? 0;
      pickShape((radio) => Number(radio.dataset.shape) === shape);
      show($('display-row'), shape === 0);
      show($('merge-row'), shape !== 0);
      setChecked(mergeSwitch, settings.virtualDisplayReplacesDesktop);
      if (document.activeElement !== displaySelect) fillDisplays(stream.displays ?? [], settings.selectedDisplayID ?? 0);
      pickHeight((radio) => Number(radio.dataset.height) === settings.resolutionHeight);
      const fps = String(settings.framesPerSecond ?? 60);
      if (![...fpsSelect.options].some((o) => o.value === fps)) {
        fpsSelect.append(el('option', { text: `${fps} fps`, attrs: { value: fps } }));
      }
      if (document.activeElement !== fpsSelect) fpsSelect.value = fps;
      setInputValue(portInput, settings.streamPort ?? '');
    },
  };
}
