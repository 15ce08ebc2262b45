// The panel's side of the control API: the session, the snapshot, the change stream and the
// operations. Every change the application announces leads to one fresh snapshot; nothing polls.

export class Unauthorized extends Error {}

async function errorMessage(response) {
  try {
    const body = await response.json();
    if (body?.error?.message) return body.error.message;
  } catch {
    // The body was not the API's error shape; the status says enough.
  }
  return `Orin Link answered ${response.status}.`;
}

export class ControlClient {
  constructor({ onState, onConnection, onUnauthorized }) {
    this.onState = onState;
    this.onConnection = onConnection;
    this.onUnauthorized = onUnauthorized;
    this.fetching = false;
    this.fetchAgain = false;
    this.events = null;
    this.retryTimer = 0;
    this.locked = false;
  }

  // The application opens the panel with its secret in the fragment. It is handed over once for
  // the session cookie and dropped from the address bar and history before anything else runs.
  async startSession() {
    const fragment = window.location.hash.slice(1);
    if (fragment) {
      window.history.replaceState(null, '', window.location.pathname);
      const response = await fetch('/api/session', {
        method: 'POST',
        headers: { Authorization: `Bearer ${decodeURIComponent(fragment)}` },
        cache: 'no-store',
      });
      if (response.ok) {
        this.onState(await response.json());
        return;
      }
    }
    await this.refresh();
  }

  async refresh() {
    if (this.fetching) {
      this.fetchAgain = true;
      return;
    }
    this.fetching = true;
    try {
      do {
        this.fetchAgain = false;
        const response = await fetch('/api/state', { cache: 'no-store' });
        if (response.status === 401) throw new Unauthorized();
        if (!response.ok) throw new Error(await errorMessage(response));
        this.onState(await response.json());
        this.onConnection(true);
      } while (this.fetchAgain);
    } catch (error) {
      if (error instanceof Unauthorized) {
        this.locked = true;
        this.stop();
        this.onUnauthorized();
      } else {
        this.onConnection(false);
      }
    } finally {
      this.fetching = false;
    }
  }

  listen() {
    this.stop();
    const events = new EventSource('/api/events');
    this.events = events;
    events.onopen = () => this.onConnection(true);
    events.onmessage = (message) => {
      let changed = [];
      try {
        changed = JSON.parse(message.data).changed ?? [];
      } catch {
        return;
      }
      // The first event of a connection names nothing: it is the moment to catch up. The
      // once-a-second tick only moves the countdown, which runs here on its own.
      if (changed.length > 0 && changed.every((name) => name === 'setupTick')) return;
      this.refresh();
    };
    events.onerror = () => {
      this.onConnection(false);
      if (events.readyState !== EventSource.CLOSED) return;
      // Closed for good (the application went away, or refused us): find out which, and start
      // listening again once it answers.
      this.events = null;
      clearTimeout(this.retryTimer);
      this.retryTimer = setTimeout(async () => {
        await this.refresh();
        if (!this.events && !this.locked) this.listen();
      }, 3000);
    };
  }

  stop() {
    clearTimeout(this.retryTimer);
    if (this.events) this.events.close();
    this.events = null;
  }

  async act(path, body) {
    const response = await fetch(path, {
      method: 'POST',
      headers: { 'Content-Type': 'application/json' },
      body: JSON.stringify(body ?? {}),
      cache: 'no-store',
    });
    if (response.status === 401) {
      this.locked = true;
      this.stop();
      this.onUnauthorized();
      throw new Unauthorized('The session has ended.');
    }
    if (!response.ok) throw new Error(await errorMessage(response));
    const state = await response.json();
    this.onState(state);
    return state;
  }
}
