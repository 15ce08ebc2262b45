// Readings of the snapshot that more than one section shows, with the fallbacks a snapshot from
// an older application needs.

export function shortModelName(model) {
  const last = model.split('/').filter(Boolean).pop() ?? model;
  return last.split(':').filter(Boolean)[0] ?? model;
}

export function streamStatus(s) {
  if (typeof s.streamStatusValue === 'string') return s.streamStatusValue;
  const stream = s.screenStream;
  if (!stream?.enabled) return 'Off';
  return stream.clients?.length ? `Streaming (${stream.clients.length})` : 'Waiting';
}

export function guidePresented(s) {
  if (typeof s.isGuidePresented === 'boolean') return s.isGuidePresented;
  if (typeof s.hasSeenGuide === 'boolean') return !s.hasSeenGuide;
  return false;
}

export function setting(s, key) {
  return s[key] ?? s.settings?.[key];
}

// The model labels of the choice list, by the memory each suits.
export const modelChoices = [
  ['gemma4:26b', '32 GB of memory or more — the smartest Orin'],
  ['gemma4:12b', '18–24 GB of memory — nearly as sharp, less than half the size'],
  ['gemma4:e4b', '8–16 GB of memory — quick and light'],
];

// A cheap fingerprint, so the QR image reloads exactly when its text changes.
export function fingerprint(text) {
  let hash = 5381;
  for (let i = 0; i < text.length; i += 1) hash = ((hash * 33) ^ text.charCodeAt(i)) >>> 0;
  return hash.toString(36);
}
