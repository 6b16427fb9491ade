// The Tools tab: installed tools (one primary action, everything else in the row menu),
// tools found on this machine, and the tools the feed offers, with a version picker.

import { h, clear, openDialog, formatSize, label } from './dom.js';
import { VirtualList } from './vlist.js';
import { ROW_HEIGHT, row, busy, toolName, qualityName, updateLabel, stillInstalled } from './rows.js';
import { toolSettingsDialog } from './toolsettings.js';

export class ToolsView {
  constructor(store, scroller) {
    this.store = store;
    this.element = h('section.view', { id: 'tools-view', 'aria-labelledby': 'tab-tools' });
    this.top = h('div.section-top');
    this.installed = new VirtualList({ scroller, rowHeight: ROW_HEIGHT, label: 'Installed tools',
      renderRow: entry => this.localRow(entry) });
    this.manual = new VirtualList({ scroller, rowHeight: ROW_HEIGHT, label: 'Tools found on this machine',
      renderRow: entry => this.manualRow(entry) });
    this.available = new VirtualList({ scroller, rowHeight: ROW_HEIGHT, label: 'Available tools',
      renderRow: entry => this.remoteRow(entry) });
    this.installedEmpty = h('p.empty', { text: 'No tools installed yet — pick one below.' });
    this.manualSection = h('div', {}, h('h2', { text: 'Found on this machine' }), this.manual.element);
    this.filter = h('input.filter', { type: 'search', placeholder: 'Filter available tools',
      'aria-label': 'Filter available tools', oninput: () => this.drawAvailable() });
    this.footer = h('div.footer');
    this.element.append(this.top, h('h2', { text: 'Installed' }), this.installedEmpty, this.installed.element,
      this.manualSection, h('div.heading-row', {}, h('h2', { text: 'Available' }), this.filter),
      this.available.element, this.footer);
    this.enableReordering();
    for (const topic of ['model', 'errors']) store.subscribe(topic, () => this.draw());
  }

  draw() {
    const model = this.store.model;
    if (!model) return;
    this.drawTop(model);
    this.installedEmpty.hidden = model.local.length > 0;
    this.installed.setItems(model.local);
    this.manualSection.hidden = !model.manual.length;
    this.manual.setItems(model.manual);
    this.drawAvailable();
    this.drawFooter(model.old_versions || {});
  }

  drawTop(model) {
    const updates = model.default_updates || {};
    clear(this.top);
    if (updates.progress) {
      this.top.append(h('div.update-all', {}, busy(this.store, updates.progress, 'Update all')));
    } else if (updates.count > 0) {
      this.top.append(h('button.primary.update-all', { text: `Update all (${updates.count})`,
        onclick: () => this.store.run('updateAllInstalledApplications', {}, 'installed') }));
    }
    const error = this.store.errors.get('installed');
    if (error) this.top.append(this.errorLine('installed', error));
  }

  errorLine(where, message) {
    return h('p.error-line', { role: 'alert' }, label(message),
      h('button.dismiss', { 'aria-label': 'Dismiss error', text: '×', onclick: () => this.store.clearError(where) }));
  }

  drawAvailable() {
    const model = this.store.model;
    if (!model) return;
    const needle = this.filter.value.trim().toLowerCase();
    const all = model.remote.concat(model.remote_other || []);
    this.available.setItems(needle ? all.filter(entry => (entry.name || '').toLowerCase().includes(needle)) : all);
  }

  drawFooter(old) {
    clear(this.footer);
    if (!old.size || /^0(\.0)? /.test(old.size)) return;
    this.footer.append(h('span', { text: `Older builds kept for rolling back use ${old.size}.` }),
      old.is_removing ? h('span.muted', { text: 'Removing…' })
        : h('button', { text: 'Remove old builds', onclick: () => this.store.run('purgeOldVersions', {}, 'purge') }));
    const error = this.store.errors.get('purge');
    if (error) this.footer.append(this.errorLine('purge', error));
  }

  localRow(entry) {
    const store = this.store;
    const record = entry.feed_item || {};
    const title = toolName(entry);
    const update = entry.default_update;
    const where = entry.key;
    const details = [record.version, qualityName(record), entry.display_path].filter(Boolean).join(' · ');
    let actions;
    if (entry.progress) actions = busy(store, entry.progress, title);
    else if (update) actions = h('button.primary', { text: updateLabel(update),
      onclick: () => store.run('updateApplication', { tool: entry }, where, stillInstalled(entry)) });
    else actions = h('button', { text: 'Open', onclick: () => this.open(entry) });
    const element = row(store, { key: where, iconUrl: record.icon_url, title, details, actions,
      menu: () => this.localMenu(entry, title) });
    element.draggable = true;
    return element;
  }

  open(entry, item = defaultOpenItem(entry)) {
    return this.store.run('activateApplication', { tool: entry, item }, entry.key);
  }

  localMenu(entry, title) {
    const store = this.store;
    const where = entry.key;
    const rollback = entry.instant_rollback && entry.instant_rollback.feed_item;
    const downgrade = entry.downgrade;
    const run = (method, args = {}) => () => store.run(method, { tool: entry, ...args }, where, stillInstalled(entry));
    const openItems = (entry.open_items || []).concat(entry.custom_open_items || []);
    return [
      entry.default_update && !entry.progress && { label: 'Open', run: () => this.open(entry) },
      ...openItems.slice(1).map(item => ({
        label: `Open ${item.custom_open_item_name || (item.feed_item && item.feed_item.name) || 'item'}`,
        run: () => this.open(entry, item),
      })),
      { label: 'Open a project with it…', run: () => this.projectPicker(entry, title) },
      rollback && { label: `Roll back to ${rollback.version}`, run: run('rollbackApplication') },
      !rollback && downgrade && { label: `Downgrade to ${(downgrade.feed_item || downgrade).version}`,
        run: run('downgradeApplication') },
      { label: 'Reinstall', run: run('updateLocalApplication') },
      entry.default_update && { label: 'Skip this update', run: run('skipUpdate') },
      { label: 'Rename…', run: () => this.rename(entry, title) },
      { label: 'Settings…', run: () => toolSettingsDialog(store, entry, title) },
      { label: 'Move up', run: () => this.move(entry, -1) },
      { label: 'Move down', run: () => this.move(entry, 1) },
      entry.full_path && { label: 'Show in files', run: () => store.run('showDirectory', { path: entry.full_path }, where) },
      entry.canBeUninstalled !== false && { label: 'Uninstall…', danger: true, run: () => this.uninstall(entry, title) },
    ];
  }

  manualRow(entry) {
    const record = entry.feed_item || {};
    const title = toolName(entry);
    const reinstall = entry.reinstall || entry.default_update;
    const actions = entry.progress ? busy(this.store, entry.progress, title)
      : reinstall ? h('button', { text: 'Reinstall',
        onclick: () => this.store.run('updateLocalApplication', { tool: entry }, entry.key) })
        : h('button', { text: 'Open', onclick: () => this.open(entry) });
    return row(this.store, { key: entry.key, iconUrl: record.icon_url, title,
      details: [record.version, entry.display_path].filter(Boolean).join(' · '), actions,
      menu: () => [
        { label: 'Open', run: () => this.open(entry) },
        entry.full_path && { label: 'Show in files',
          run: () => this.store.run('showDirectory', { path: entry.full_path }, entry.key) },
      ] });
  }

  remoteRow(entry) {
    const record = (entry.stable && entry.stable.feed_item) || entry.feed_item || {};
    const title = entry.name || record.name || record.id;
    const installed = entry.isInstalled ? 'Installed · ' : '';
    const actions = entry.progress ? busy(this.store, entry.progress, title)
      : h('button', { text: entry.isInstalled ? 'Install again' : 'Install',
        onclick: () => this.install(entry, record) });
    return row(this.store, { key: entry.key, iconUrl: record.icon_url, title,
      details: installed + [record.version, record.description].filter(Boolean).join(' · '), actions,
      menu: () => [
        { label: 'Choose a version…', run: () => this.versionPicker(entry, title) },
        { label: `Install ${record.version || ''}`.trim(), run: () => this.install(entry, record) },
      ] });
  }

  install(entry, record) {
    return this.store.run('installApplication', { item: { feed_item: record }, tool: entry }, entry.key);
  }

  versionPicker(entry, title) {
    openDialog(`Versions of ${title}`, close => {
      const versions = (entry.versions || []).map(version => version.feed_item || version);
      const list = h('ul.versions', { role: 'list' });
      for (const record of versions) {
        const notes = whatsNew(record.whats_new);
        list.append(h('li.version', {},
          h('div.version-head', {},
            h('strong', { text: record.version || record.build }),
            qualityName(record) && h('span.badge', { text: qualityName(record) }),
            h('span.muted', { text: [record.build && `build ${record.build}`, formatSize(record.package && record.package.size)]
              .filter(Boolean).join(' · ') }),
            (entry.installed_builds || []).includes(record.build) ? h('span.badge', { text: 'installed' })
              : h('button', { text: 'Install', onclick: () => { close(); this.install(entry, record); } })),
          notes && h('details', {}, h('summary', { text: 'What’s new' }), h('p.notes', { text: notes }))));
      }
      return h('div', {}, versions.length ? list : h('p.empty', { text: 'No builds offered.' }),
        h('div.dialog-buttons', {}, h('button', { text: 'Close', onclick: close })));
    });
  }

  rename(entry, title) {
    openDialog(`Rename ${title}`, close => {
      const input = h('input', { type: 'text', value: title, 'aria-label': 'Name',
        maxlength: String(this.store.config.custom_name_max_length || 90) });
      const form = h('form', {
        onsubmit: event => {
          event.preventDefault();
          close();
          this.store.change('renameApplication', { tool: entry, name: input.value.trim() }, entry.key, 'Renamed');
        },
      }, input, h('div.dialog-buttons', {}, h('button', { type: 'button', text: 'Cancel', onclick: close }),
        h('button.primary', { type: 'submit', text: 'Rename' })));
      return form;
    });
  }

  uninstall(entry, title) {
    openDialog(`Uninstall ${title}?`, close => h('div', {},
      h('p', { text: `${title} ${entry.feed_item ? entry.feed_item.version : ''} and the builds kept for rolling back are removed from this machine. Your projects stay.` }),
      h('div.dialog-buttons', {}, h('button', { text: 'Keep it', onclick: close }),
        h('button.danger', { text: 'Uninstall', onclick: () => {
          close();
          this.store.run('uninstallApplication', { tool: entry }, entry.key);
        } }))));
  }

  projectPicker(entry, title) {
    const projects = (this.store.model.projects || []).map(project => ({
      project, item: (project.open_items || []).find(item => openedBy(entry, item)) }))
      .filter(choice => choice.item);
    openDialog(`Open a project with ${title}`, close => h('div', {},
      projects.length ? h('ul.picker', { role: 'list' }, projects.map(({ project, item }) => h('li', {},
        h('button.link', { text: project.project.name, title: project.project.path, onclick: () => {
          close();
          this.store.run('projects:open', { project, item }, entry.key);
        } }))))
        : h('p.empty', { text: `${title} has no recent projects yet.` }),
      h('div.dialog-buttons', {}, h('button', { text: 'Close', onclick: close }))));
  }

  // Reordering by keyboard (the row menu, or Alt+arrow keys) and by dragging a row.
  move(entry, step) {
    const list = this.store.model.local.slice();
    const from = list.findIndex(other => other.key === entry.key);
    const to = from + step;
    if (from < 0 || to < 0 || to >= list.length) return;
    list.splice(to, 0, list.splice(from, 1)[0]);
    this.reorder(list, to);
  }

  reorder(list, focusIndex) {
    this.store.model = { ...this.store.model, local: list };
    this.draw();
    this.installed.focusIndex(focusIndex);
    this.store.run('reorderLocalTools', { tools: list }, 'installed');
  }

  enableReordering() {
    const element = this.installed.element;
    let dragged = -1;
    element.addEventListener('dragstart', event => {
      dragged = Number(event.target.dataset.row);
      event.dataTransfer.effectAllowed = 'move';
    });
    element.addEventListener('dragover', event => event.preventDefault());
    element.addEventListener('drop', event => {
      event.preventDefault();
      const target = event.target.closest('[data-row]');
      if (!target || dragged < 0) return;
      this.move(this.store.model.local[dragged], Number(target.dataset.row) - dragged);
      dragged = -1;
    });
    element.addEventListener('keydown', event => {
      const target = event.target.closest('[data-row]');
      const step = { ArrowUp: -1, ArrowDown: 1 }[event.key];
      if (!event.altKey || !step || !target) return;
      event.preventDefault();
      this.move(this.store.model.local[Number(target.dataset.row)], step);
    });
  }
}

export function defaultOpenItem(entry) {
  const items = (entry.open_items || []).concat(entry.custom_open_items || []);
  return items.find(item => item.key === entry.default_open_item) || items[0] || null;
}

function openedBy(entry, item) {
  return item.feed_item && entry.feed_item && item.feed_item.id === entry.feed_item.id
    && entry.key === `local-${item.feed_item.id}-${item.channel_id}`;
}

// Release notes come as an object of texts (or a text): shown as plain text, never as markup.
function whatsNew(notes) {
  if (!notes) return '';
  if (typeof notes === 'string') return notes;
  return Object.values(notes).filter(value => typeof value === 'string').join('\n');
}
