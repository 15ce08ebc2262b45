import { $, clearEdits, clockTime, el, formatBytes, setInputValue, setText, show, syncList, trackEdits } from '../dom.js';
import { modelChoices } from '../state.js';

const otherModel = '\u0000other';
const pausedEvent = 'Download paused';

export function runtime({ run, act, report }) {
  const modelSelect = $('model-select');
  const baseURL = $('base-url');
  const customModel = $('custom-model');
  const bar = $('download-bar');
  let state = {};
  // The snapshot carries the download's progress but not its model, nor a paused one.
  let pulling = null;
  let paused = null;
  trackEdits(baseURL, customModel);

  const pull = (button, model) => {
    pulling = model;
    paused = null;
    run(button, '/api/runtime/pull', { model });
  };

  $('ollama-start').addEventListener('click', (e) => run(e.currentTarget, '/api/runtime/start-ollama'));
  $('ollama-download').addEventListener('click', (e) => run(e.currentTarget, '/api/runtime/download-ollama'));
  $('ollama-refresh').addEventListener('click', (e) => run(e.currentTarget, '/api/runtime/refresh'));
  $('model-warm-button').addEventListener('click', (e) => run(e.currentTarget, '/api/runtime/warm'));
  $('model-download').addEventListener('click', (e) => pull(e.currentTarget, state.activeModel));
  $('download-resume').addEventListener('click', (e) => pull(e.currentTarget, paused?.model ?? state.activeModel));
  $('download-pause').addEventListener('click', (e) => {
    const p = state.pull;
    paused = { model: pulling ?? state.activeModel, fraction: p?.fraction ?? null,
      completedBytes: p?.completedBytes ?? 0, totalBytes: p?.totalBytes ?? 0 };
    run(e.currentTarget, '/api/runtime/pause');
  });
  modelSelect.addEventListener('change', () => {
    const picked = modelSelect.value;
    show($('custom-model-form'), picked === otherModel);
    if (picked === otherModel) {
      customModel.focus();
      return;
    }
    act('/api/settings', { activeModel: picked }).catch(report);
  });
  $('custom-model-form').addEventListener('submit', (event) => {
    event.preventDefault();
    const name = customModel.value.trim();
    if (!name) return;
    clearEdits(customModel);
    show($('custom-model-form'), false);
    act('/api/settings', { activeModel: name }).catch(report);
  });
  $('base-url-form').addEventListener('submit', (event) => {
    event.preventDefault();
    clearEdits(baseURL);
    act('/api/settings', { ollamaBaseURL: baseURL.value.trim() }).catch(report);
  });

  function fillModels(r) {
    const installed = r.models ?? [];
    const labels = new Map(modelChoices);
    const names = [...new Set([...installed, ...labels.keys(), r.activeModel].filter(Boolean))];
    const options = [...names.map((name) => ({ name, label: labels.get(name), installed: installed.includes(name) })),
      { name: otherModel }];
    syncList(modelSelect, options, (o) => o.name,
      (o) => el('option', { attrs: { value: o.name } }),
      (node, o) => {
        if (o.name === otherModel) {
          setText(node, 'Other model…');
          return;
        }
        const parts = [o.name];
        if (o.label) parts.push(o.label);
        setText(node, parts.join(' — ') + (o.installed ? '' : ' (not downloaded)'));
      });
    if (document.activeElement !== modelSelect && modelSelect.value !== otherModel) modelSelect.value = r.activeModel ?? '';
  }

  function renderDownload(r) {
    const live = r.pull ?? null;
    if (live) paused = null;
    if (!live && !paused && (r.lastEvent ?? '').startsWith(pausedEvent) && !r.activeModelInstalled) {
      paused = { model: r.activeModel, fraction: null, completedBytes: 0, totalBytes: 0 };
    }
    if (paused && r.models?.includes(paused.model)) paused = null;
    const shown = live ?? paused;
    show($('download'), Boolean(shown));
    if (!shown) {
      pulling = null;
      return;
    }
    const model = live ? (pulling ?? r.activeModel) : paused.model;
    const fraction = typeof shown.fraction === 'number' ? Math.max(0, Math.min(1, shown.fraction)) : null;
    $('download').classList.toggle('paused', !live);
    setText($('download-title'), live ? `Downloading ${model}` : `${model} is paused`);
    setText($('download-percent'), fraction === null ? '' : `${Math.floor(fraction * 100)}%`);
    bar.classList.toggle('indeterminate', live && fraction === null);
    $('download-fill').style.width = fraction === null ? '' : `${(fraction * 100).toFixed(1)}%`;
    if (fraction === null) bar.removeAttribute('aria-valuenow');
    else bar.setAttribute('aria-valuenow', String(Math.floor(fraction * 100)));
    const bytes = shown.totalBytes > 0 ? `${formatBytes(shown.completedBytes)} of ${formatBytes(shown.totalBytes)}` : '';
    setText($('download-detail'), live
      ? [shown.status, bytes].filter(Boolean).join(' · ')
      : ['Ollama keeps what it has, so it resumes where it left off.', bytes].filter(Boolean).join(' · '));
    show($('download-pause'), Boolean(live));
    show($('download-resume'), !live);
  }

  return {
    update(s) {
      const r = s.runtime ?? {};
      state = { ...r, lastEvent: s.lastEvent };
      const install = r.installState ?? (r.available ? 'running' : 'notInstalled');
      const pill = $('ollama-state');
      const [pillText, pillClass] = {
        running: ['Running', 'good'], installed: ['Not running', 'warn'], notInstalled: ['Not installed', 'warn'],
      }[install] ?? ['Unknown', ''];
      setText(pill, pillText);
      pill.className = `pill ${pillClass}`;
      setText($('ollama-detail'), install === 'running'
        ? `Connected, with ${(r.models ?? []).length} ${(r.models ?? []).length === 1 ? 'model' : 'models'} on this computer.`
        : install === 'installed' ? 'Ollama is installed but not running. Start it and Orin Link connects on its own.'
        : 'Ollama is not on this computer yet. It is a free download; Orin Link picks it up once it runs.');
      show($('ollama-start'), install === 'installed');
      show($('ollama-download'), install === 'notInstalled');
      setText($('ollama-error'), r.available ? '' : r.error ?? '');
      show($('ollama-error'), !r.available && Boolean(r.error));
      setInputValue(baseURL, r.baseURL ?? '');

      fillModels(r);
      setText($('model-recommendation'), r.recommendedModel ? `Recommended for this computer: ${r.recommendedModel}` : '');
      const active = r.activeModel ?? '';
      setText($('model-warm'), r.modelResidentSince
        ? `Loaded and warm since ${clockTime(r.modelResidentSince)}.`
        : 'Not loaded yet: it loads on the first request, or now if you warm it up.');
      $('model-warm-button').disabled = !r.available || !r.activeModelInstalled;

      renderDownload(state);
      setText($('model-installed'), r.activeModelInstalled ? `${active} is downloaded and ready.`
        : r.pull ? `${active} is on its way.`
        : paused ? `${active} is partly downloaded.`
        : `${active} isn't downloaded yet.`);
      show($('model-download'), !r.activeModelInstalled && r.available && !r.pull && !paused);
      setText($('pull-error'), r.pullError ?? '');
      show($('pull-error'), Boolean(r.pullError));

      const installed = r.models ?? [];
      syncList($('model-list'), installed, (name) => name, () => el('li'), (node, name) => {
        setText(node, name);
        node.classList.toggle('active', name === active);
      });
      show($('model-empty'), installed.length === 0);
    },
  };
}
