// What the page knows about the manager, and the one way to ask it for something.
// Views subscribe to topics ("model", "settings", "progress", "selfUpdate", "errors",
// "connection") and redraw from the store; they never keep their own copy of the data.

import { toast } from './dom.js';

export class Store {
  constructor(connection) {
    this.connection = connection;
    this.model = null;
    this.settings = null;
    this.config = {};
    this.progress = null;
    this.selfUpdate = null;
    this.notice = null;
    this.connected = false;
    // Errors by the place they belong to: a row key, a section name or "global".
    this.errors = new Map();
    this.subscribers = new Map();
    // When each model arrived and was drawn (read by the benchmark and by curious people).
    this.renderTimes = [];
    window.hangarRenderTimes = this.renderTimes;
  }

  subscribe(topic, listener) {
    if (!this.subscribers.has(topic)) this.subscribers.set(topic, []);
    this.subscribers.get(topic).push(listener);
  }

  publish(topic) {
    for (const listener of this.subscribers.get(topic) || []) listener(this);
  }

  set(topic, value) {
    this[topic] = value;
    this.publish(topic);
  }

  // Runs a request; a failure is kept under `where` and shown there until dismissed.
  // `failure` turns the manager's message into words for that place.
  async run(method, args = {}, where = 'global', failure = message => message) {
    this.clearError(where);
    try {
      return await this.connection.request(method, args);
    } catch (error) {
      this.showError(where, failure(error.message));
      return null;
    }
  }

  // Like run(), with a short confirmation on success.
  async change(method, args, where, confirmation = 'Saved') {
    const answer = await this.run(method, args, where);
    if (answer !== null) toast(confirmation);
    return answer;
  }

  showError(where, message) {
    this.errors.set(where, message);
    this.publish('errors');
  }

  clearError(where) {
    if (this.errors.delete(where)) this.publish('errors');
  }

  async loadSettings() {
    try {
      this.set('settings', await this.connection.requestJson('getSettings'));
    } catch (error) {
      this.showError('settings', error.message);
    }
  }
}
