// The Settings tab: plain grouped forms. Each change is sent at once and confirmed with a
// small note; there is no Save button. The settings document is the manager's; the page
// edits one key of it and hands the whole document back.

import { h, clear, openDialog, label } from './dom.js';

let fieldCount = 0;

// One labelled control: a switch for booleans, a field for numbers and texts, a choice when
// `options` ([{value, label}]) are given. `onChange` gets the new value.
export function field(text, value, onChange, options) {
  const id = `field-${++fieldCount}`;
  let control;
  if (options) {
    control = h('select', { id, onchange: () => onChange(Number(control.value)) },
      options.map(option => h('option', { value: String(option.value), text: option.label,
        selected: option.value === value })));
  } else if (typeof value === 'boolean') {
    control = h('input', { id, type: 'checkbox', role: 'switch', checked: value,
      onchange: () => onChange(control.checked) });
    return h('div.field.switch', {}, control, h('label', { for: id, text }));
  } else {
    const numeric = typeof value === 'number';
    control = h('input', { id, type: numeric ? 'number' : 'text', value: value === undefined ? '' : String(value),
      onchange: () => onChange(numeric ? Number(control.value) : control.value) });
  }
  return h('div.field', {}, h('label', { for: id, text }), control);
}

function read(object, path) {
  return path.reduce((node, key) => (node && typeof node === 'object' ? node[key] : undefined), object);
}

function written(object, path, value) {
  const copy = { ...object };
  const [key, ...rest] = path;
  copy[key] = rest.length ? written(object && typeof object[key] === 'object' ? object[key] : {}, rest, value) : value;
  return copy;
}

export class SettingsView {
  constructor(store, windowed) {
    this.store = store;
    this.windowed = windowed;
    this.errorSlot = h('div');
    this.form = h('div');
    this.element = h('section.view', { id: 'settings-view', 'aria-labelledby': 'tab-settings' }, this.errorSlot, this.form);
    for (const topic of ['settings', 'selfUpdate']) store.subscribe(topic, () => this.draw());
    store.subscribe('errors', () => this.drawError());
  }

  // Writes one key and sends the whole document, without the parts the page only reads.
  save(path, value) {
    const settings = written(this.store.settings, path, value);
    delete settings.defaults;
    delete settings.accounts;
    this.store.settings = { ...settings, defaults: this.store.settings.defaults, accounts: this.store.settings.accounts };
    return this.store.change('saveSettings', { settings }, 'settings');
  }

  setting(text, path, fallback, options) {
    const value = read(this.store.settings, path);
    return field(text, value === undefined ? fallback : value, changed => this.save(path, changed), options);
  }

  draw() {
    const settings = this.store.settings;
    // A redraw under the user's hands would take their focus; the controls already show the change.
    if (!settings || this.form.contains(document.activeElement)) return;
    const defaults = settings.defaults || {};
    clear(this.form).append(
      h('fieldset', {}, h('legend', { text: 'Tools' }),
        this.installLocation(settings.install_location || defaults.install_location || ''),
        this.setting('Update tools automatically', ['tools', 'update_all_automatically'], false),
        this.setting('Builds kept for rolling back', ['channel_rollback_max_history'], 1),
        this.setting('Write shell scripts', ['shell_scripts', 'enabled'], false),
        this.setting('Shell scripts folder', ['shell_scripts', 'location'], defaults.shell_scripts_default_location || '')),
      h('fieldset', {}, h('legend', { text: 'Hangar' }),
        this.setting('Update Hangar automatically', ['update', 'install_automatically'], false),
        this.updateChannel(),
        this.setting('Start when I log in', ['autostart'], defaults.autostart !== false),
        h('div.field', {}, h('button', { text: 'Check for updates now',
          onclick: () => this.store.change('updateFeed', {}, 'settings', 'Checking for updates') }))),
      h('fieldset', {}, h('legend', { text: 'Network' }),
        this.setting('Use a proxy', ['proxy', 'enabled'], false),
        this.setting('Proxy host', ['proxy', 'host'], ''),
        this.setting('Proxy port', ['proxy', 'port'], 0),
        h('div.field', {}, h('button', { text: 'Proxy credentials…', onclick: () => proxyCredentials(this) }),
          h('button', { text: 'System proxy settings', onclick: () => this.store.run('openSystemProxySettings', {}, 'settings') }))),
      h('fieldset', {}, h('legend', { text: 'Privacy' }),
        field('Send anonymous usage statistics', Boolean(read(settings, ['statistics', 'allow'])),
          value => this.store.change('orvPrivacyPolicyAccepted', { accepted: true, statistics: value }, 'settings')),
        h('div.field', {}, h('button', { text: 'Show usage log', onclick: () => this.store.run('openEventLog', {}, 'settings') }))),
      h('fieldset', {}, h('legend', { text: 'Help' }),
        h('p.muted', { text: `Hangar ${(this.store.selfUpdate && this.store.selfUpdate.current_version) || ''}`.trim() }),
        h('div.field', {}, h('button', { text: 'Show log file', onclick: () => this.store.run('showLogFile', {}, 'settings') }))));
  }

  drawError() {
    const error = this.store.errors.get('settings');
    clear(this.errorSlot);
    if (error) this.errorSlot.append(h('p.error-line', { role: 'alert' }, label(error),
      h('button.dismiss', { 'aria-label': 'Dismiss error', text: '×', onclick: () => this.store.clearError('settings') })));
  }

  // In the window a directory chooser helps; in a browser the path is typed.
  installLocation(location) {
    const id = 'install-location';
    const input = h('input', { id, type: 'text', value: location,
      onchange: () => this.store.change('saveInstallLocation', { location: input.value.trim() }, 'settings') });
    const choose = this.windowed && h('button', { text: 'Choose…', onclick: async () => {
      const path = await this.store.connection.request('selectDirectoryDialog', { caption: 'Install tools in' })
        .catch(() => null);
      if (!path) return;
      input.value = path;
      this.store.change('saveInstallLocation', { location: path }, 'settings');
    } });
    return h('div.field', {}, h('label', { for: id, text: 'Install tools in' }), h('span.inline', {}, input, choose));
  }

  updateChannel() {
    const status = this.store.selfUpdate || {};
    const levels = read(status, ['filter_options', 'quality', 'levels']) || [];
    if (!levels.length) return null;
    const options = levels.map(level => ({ value: level.order_value, label: level.name || String(level.order_value) }));
    const current = read(this.store.settings, ['update', 'filter', 'quality_filter', 'order_value']);
    const chosen = options.filter(option => option.value <= current).pop() || options[0];
    return field('Hangar updates', chosen.value, value => this.save(['update', 'filter', 'quality_filter', 'order_value'], value),
      options);
  }
}

// Asked by the manager when a proxy wants a password, and offered in the settings.
export function proxyCredentials(view, proxyUrl) {
  const settings = view.store.settings || {};
  openDialog('Proxy credentials', close => {
    const user = h('input', { id: 'proxy-user', type: 'text', autocomplete: 'username',
      value: read(settings, ['proxy', 'auth', 'username']) || '' });
    const password = h('input', { id: 'proxy-password', type: 'password', autocomplete: 'current-password' });
    return h('form', { onsubmit: event => {
      event.preventDefault();
      close();
      view.save(['proxy', 'auth'], { username: user.value, password: password.value });
    } },
    proxyUrl && h('p', { text: `The proxy ${proxyUrl} asks for a user name and password.` }),
    h('div.field', {}, h('label', { for: 'proxy-user', text: 'User name' }), user),
    h('div.field', {}, h('label', { for: 'proxy-password', text: 'Password' }), password),
    h('div.dialog-buttons', {}, h('button', { type: 'button', text: 'Cancel', onclick: close }),
      h('button.primary', { type: 'submit', text: 'Save' })));
  });
}
