// The page's one pipe to the manager. Inside the window it is the QWebChannel object
// "hangar"; in a browser it is the WebSocket at /api of headless mode. Both carry the same
// text frames: {"id", "query"} out; {"id", "ok", "answer"|"error"} answers and "signal"
// events in. The rest of the page only sees `request()`, `on()` and `onState()`.

const MAX_BACKOFF_MS = 10000;

export class Connection {
  constructor() {
    this.nextId = 1;
    this.waiting = new Map();
    this.listeners = new Map();
    this.stateListeners = [];
    this.backoff = 500;
    this.send = null;
  }

  start() {
    if (window.qt && window.qt.webChannelTransport) this.openChannel();
    else this.openSocket();
  }

  // Resolves with the answer text, rejects with an Error carrying the manager's message.
  request(method, args = {}) {
    if (!this.send) return Promise.reject(new Error('Not connected to Hangar'));
    const id = this.nextId++;
    const frame = JSON.stringify({ id, query: JSON.stringify({ method, ...args }) });
    return new Promise((resolve, reject) => {
      this.waiting.set(id, { resolve, reject });
      this.send(frame);
    });
  }

  // A request whose answer is JSON.
  async requestJson(method, args) {
    const text = await this.request(method, args);
    return text ? JSON.parse(text) : null;
  }

  on(signal, listener) {
    if (!this.listeners.has(signal)) this.listeners.set(signal, []);
    this.listeners.get(signal).push(listener);
  }

  onState(listener) {
    this.stateListeners.push(listener);
  }

  setState(state) {
    for (const listener of this.stateListeners) listener(state);
  }

  receive(text) {
    let frame;
    try {
      frame = JSON.parse(text);
    } catch (error) {
      console.warn('Unreadable frame from Hangar', text);
      return;
    }
    if (typeof frame.signal === 'string') {
      for (const listener of this.listeners.get(frame.signal) || []) listener(frame);
      return;
    }
    const waiting = this.waiting.get(frame.id);
    if (!waiting) return;
    this.waiting.delete(frame.id);
    if (frame.ok) waiting.resolve(frame.answer === undefined ? '' : frame.answer);
    else waiting.reject(new Error(frame.error || 'The request failed'));
  }

  dropWaiting() {
    for (const { reject } of this.waiting.values()) reject(new Error('The connection to Hangar was lost'));
    this.waiting.clear();
  }

  openChannel() {
    const script = document.createElement('script');
    script.src = 'qtwebchannel/qwebchannel.js';
    script.onload = () => {
      new window.QWebChannel(window.qt.webChannelTransport, channel => {
        const bridge = channel.objects.hangar;
        bridge.message.connect(text => this.receive(text));
        this.send = frame => bridge.send(frame);
        this.setState('open');
      });
    };
    document.head.append(script);
  }

  openSocket() {
    this.setState('connecting');
    const token = new URLSearchParams(location.search).get('token');
    const scheme = location.protocol === 'https:' ? 'wss:' : 'ws:';
    const socket = new WebSocket(`${scheme}//${location.host}/api${token ? `?token=${encodeURIComponent(token)}` : ''}`);
    socket.onopen = () => {
      this.backoff = 500;
      this.send = frame => socket.send(frame);
      this.setState('open');
    };
    socket.onmessage = event => this.receive(event.data);
    socket.onclose = () => {
      const wasOpen = this.send !== null;
      this.send = null;
      this.dropWaiting();
      if (wasOpen) this.setState('closed');
      // Back off with jitter, so a restarting manager is not hammered by every open tab at once.
      const delay = this.backoff * (0.75 + Math.random() / 2);
      this.backoff = Math.min(this.backoff * 2, MAX_BACKOFF_MS);
      setTimeout(() => this.openSocket(), delay);
    };
  }
}
