// Starts the page: connects, announces itself with "apiReady" (which releases the events the
// manager kept for it), and wires the events into the store and the views.

import {clear, closeMenus, formatDuration, h, label} from './dom.js';
import {ProjectsView} from './projects.js';
import {toolName, updateRing} from './rows.js';
import {proxyCredentials, SettingsView} from './settings.js';
import {Store} from './store.js';
import {ToolsView} from './tools.js';
import {Connection} from './transport.js';

const connection = new Connection();
const store = new Store(connection);
const windowed = Boolean(window.qt && window.qt.webChannelTransport);
const scroller = document.getElementById('content');
const views = {
  tools: new ToolsView(store, scroller),
  projects: new ProjectsView(store, scroller),
  settings: new SettingsView(store, windowed),
};
scroller.append(...Object.values(views).map(view => view.element));

// Tabs: one panel at a time; arrow keys move between tabs as in any tab strip.
const tabs = [...document.querySelectorAll('[role="tab"]')];
function selectTab(name, focus) {
  for (const tab of tabs) {
    const selected = tab.dataset.view === name;
    tab.setAttribute('aria-selected', String(selected));
    tab.tabIndex = selected ? 0 : -1;
    views[tab.dataset.view].element.hidden = !selected;
    if (selected && focus) tab.focus();
  }
  scroller.scrollTop = 0;
  views[name].draw();
}
for (const tab of tabs) {
  tab.addEventListener('click', () => selectTab(tab.dataset.view));
  tab.addEventListener('keydown', event => {
    const step = { ArrowRight: 1, ArrowLeft: -1 }[event.key];
    if (!step) return;
    const next = tabs[(tabs.indexOf(tab) + step + tabs.length) % tabs.length];
    selectTab(next.dataset.view, true);
  });
}
document.addEventListener('keydown', event => {
  if (event.key === '/' && !event.target.closest('input, textarea, select')) {
    event.preventDefault();
    selectTab('projects');
    views.projects.search.focus();
  } else if (event.key === 'Escape') {
    closeMenus();
  }
});

// The one progress area: a thin bar for everything that runs, its name, time left and Cancel.
const progressArea = document.getElementById('progress');
function drawProgress() {
  const progress = store.progress;
  for (const ring of document.querySelectorAll('[data-progress-id]')) updateRing(ring, progress);
  const running = progress && (progress.name || progress.current < progress.all);
  progressArea.hidden = !running;
  if (!running) return;
  const fraction = progress.all > 0 ? Math.min(1, progress.current / progress.all) : 0;
  clear(progressArea).append(
    h('div.bar', { role: 'progressbar', 'aria-label': progress.name || 'Working', 'aria-valuemin': '0',
      'aria-valuemax': '100', 'aria-valuenow': String(Math.round(fraction * 100)) },
    h('span', { style: `width:${fraction * 100}%` })),
    h('div.progress-line', {}, label(progress.name || 'Working…'),
      h('span.muted', { text: formatDuration(progress.time) }),
      progress.cancelable && h('button.small', { text: 'Cancel',
        onclick: () => store.run('stopAction', { id: progress.id }, 'global') })));
}
store.subscribe('progress', drawProgress);

// Banners: the connection, the manager's own update, a stale feed, tools that failed to start
// after an update, errors of no particular row.
const banners = document.getElementById('banners');
const dismissedFailures = new Set();
function failedLaunchBanner(entry)
{
    const failed = entry.settings && entry.settings.failed_first_launch;
    const record = entry.feed_item || {};
    const id = `${entry.key}/${failed && failed.build}`;
    // Only while the build that failed is the active one: a rollback or a newer build ends it.
    if (!failed || failed.build !== record.build || dismissedFailures.has(id))
        return null;
    const rollback = entry.instant_rollback && entry.instant_rollback.feed_item;
    return h('div.banner.error', { role : 'alert' },
        label(`${toolName(entry)} ${record.version || ''} exited with code ${
                  failed.exit_code} right after its update.`
            +
            ' Automatic updates will skip this build.'),
        rollback && h('button.small.primary', {
            text : `Roll back to ${rollback.version}`,
            onclick : () => store.run('rollbackApplication', { tool : entry }, entry.key)
        }),
        h('button.dismiss', {
            'aria-label' : 'Dismiss',
            text : '×',
            onclick : () => {
                dismissedFailures.add(id);
                drawBanners();
            }
        }));
}
function drawBanners() {
  clear(banners);
  if (!store.connected)
    banners.append(h('div.banner.warning', { role: 'status', text: 'Connecting to Hangar…' }));
  const self = store.selfUpdate;
  if (self && self.updateRunning)
    banners.append(h('div.banner', { role: 'status', text: 'Updating Hangar…' }));
  else if (self && self.updateAvailable)
    banners.append(h('div.banner', { role: 'status' }, label(`Hangar ${self.latestVersion || ''} is ready to install.`),
      h('button.small.primary', { text: 'Restart to update', onclick: () => store.run('updateSelf', {}, 'global') })));
  const model = store.model;
  if (model && model.feed_stale) {
      const published = model.feed_generation_time
          ? ` It was published on ${model.feed_generation_time.slice(0, 10)}.`
          : '';
      banners.append(h('div.banner.warning', { role : 'status' },
          label(`The list of tools is out of date: updates published since then are missing.${published}`),
          h('button.small', { text : 'Refresh', onclick : refreshList })));
  }
  for (const entry of (model && model.local) || []) {
      const banner = failedLaunchBanner(entry);
      if (banner)
          banners.append(banner);
  }
  if (store.notice)
    banners.append(h('div.banner.warning', { role: 'status' }, label(store.notice),
      h('button.small', { text: 'Retry', onclick: refreshList })));
  const error = store.errors.get('global') || store.errors.get('progress');
  if (error)
    banners.append(h('div.banner.error', { role: 'alert' }, label(error),
      h('button.dismiss', { 'aria-label': 'Dismiss error', text: '×', onclick: () => {
        store.clearError('global');
        store.clearError('progress');
      } })));
}
for (const topic of ['connection', 'selfUpdate', 'errors', 'notice', 'model'])
    store.subscribe(topic, drawBanners);

function drawBadge() {
  const count = (store.model && store.model.default_updates && store.model.default_updates.count) || 0;
  const badge = document.getElementById('update-count');
  badge.hidden = count === 0;
  badge.textContent = String(count);
  badge.setAttribute('aria-label', `${count} updates`);
}
store.subscribe('model', drawBadge);

async function refreshList() {
  store.set('notice', null);
  const answer = await store.run('updateFeed', {}, 'global');
  if (answer === null) store.set('notice', 'The list of tools could not be brought up to date.');
}

// Events. The model is drawn within the frame it arrives in; the times are kept for the benchmark.
connection.on('refreshApplicationsList', model => {
  const received = performance.now();
  store.set('model', { local: [], manual: [], remote: [], remote_other: [], projects: [], ...model });
  // No tool offered at all means the feed could not be read: say so, never just show nothing.
  const offered = store.model.remote.length + store.model.remote_other.length;
  store.set('notice', offered ? null : 'No tools could be loaded from the feed. It may be unreachable.');
  // The lists draw in the next frame; the timer after it fires once that frame is painted.
  const handled = performance.now();
  requestAnimationFrame(() => setTimeout(() => store.renderTimes.push({ received, handled, drawn: performance.now() })));
});
connection.on('totalProgress', progress => {
  store.set('progress', progress);
  if (progress.error) store.showError('progress', progress.error);
});
connection.on('settingsChanged', settings => store.set('settings', settings));
connection.on('onSelfUpdateStatusChange', status => store.set('selfUpdate', status));
connection.on('showSettings', () => selectTab('settings'));
connection.on('showProxyCredentialsDialog', payload => proxyCredentials(views.settings, payload.proxyUrl));
connection.on('errorNotify', payload => store.showError('global', payload.message || payload.error || payload.text));
connection.on('onWindowShown', () => views[tabs.find(tab => tab.getAttribute('aria-selected') === 'true').dataset.view].draw());

connection.onState(async state => {
  store.set('connected', state === 'open');
  if (state !== 'open') return;
  // "apiReady" releases the events kept for the page (the model among them); a page that
  // reconnects is sent the latest ones again.
  await store.run('apiReady', {}, 'global');
  try {
    store.config = (await connection.requestJson('config')) || {};
  } catch (error) {
    store.showError('global', error.message);
  }
  // A build without self-update says so; the page then simply shows no update banner.
  store.set('selfUpdate', await connection.requestJson('getSelfUpdateStatus').catch(() => null));
  await store.loadSettings();
  // A manager that has no model yet builds one when asked; the page never stays empty.
  setTimeout(() => { if (!store.model && store.connected) refreshList(); }, 3000);
});

selectTab('tools');
connection.start();
