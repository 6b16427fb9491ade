// The settings panel of one installed tool. Its sections come from the entry's
// "settings_model" (each provider of the manager adds one), so a new section shows up here
// without a change to the page: booleans become switches, numbers and texts become fields,
// lists are shown as they are. Every change applies at once.

import { h, openDialog, label } from './dom.js';
import { field } from './settings.js';

const SECTION_TITLES = { lathe_platform: 'Memory and data', shell_scripts: 'Shell script' };

export function humanize(key) {
  const words = key.replace(/([a-z])([A-Z])/g, '$1 $2').replace(/[_-]+/g, ' ').trim().toLowerCase();
  return words.charAt(0).toUpperCase() + words.slice(1);
}

export function toolSettingsDialog(store, entry, title) {
  const where = `settings-${entry.key}`;
  openDialog(`${title} settings`, close => {
    const status = h('p.error-line', { role: 'alert', hidden: true });
    const fail = message => { status.hidden = false; status.textContent = message; };
    const apply = async (method, args) => {
      status.hidden = true;
      const answer = await store.change(method, { tool: entry, ...args }, where);
      if (answer === null) fail(store.errors.get(where));
    };
    const body = h('div.tool-settings');
    const model = entry.settings_model || {};
    for (const [name, section] of Object.entries(model)) {
      if (!section || typeof section !== 'object') continue;
      const values = { ...section };
      const fields = Object.entries(section).map(([key, value]) => {
        if (Array.isArray(value) || (value && typeof value === 'object'))
          return h('p.muted', {}, `${humanize(key)}: `, label(JSON.stringify(value)));
        return field(humanize(key), value, changed => {
          values[key] = changed;
          apply('applySettingsModel', { settings: { [name]: values } });
        });
      });
      body.append(h('fieldset', {}, h('legend', { text: SECTION_TITLES[name] || humanize(name) }), fields));
    }
    const channel = { ...(entry.settings || {}) };
    body.append(h('fieldset', {}, h('legend', { text: 'Updates' }),
      field('Install updates of this tool automatically', Boolean(channel.install_automatically), value => {
        channel.install_automatically = value;
        apply('saveChannelSettings', { settings: channel });
      })),
    h('div.dialog-buttons', {},
      h('button', { text: 'Edit VM options file',
        onclick: () => store.run('openUserVmOptionsFile', { tool: entry }, where).then(answer => answer === null && fail(store.errors.get(where))) }),
      h('button.primary', { text: 'Done', onclick: close })));
    return h('div', {}, body, status);
  });
}
