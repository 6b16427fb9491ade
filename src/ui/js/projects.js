// The Projects tab: a search field, then the recent projects of the installed tools,
// favourites first. A click opens the project with its default tool; the row menu holds
// the other tools, the default choice, favourite and hide.

import { h } from './dom.js';
import { VirtualList } from './vlist.js';
import { ROW_HEIGHT, row } from './rows.js';

export class ProjectsView {
  constructor(store, scroller) {
    this.store = store;
    this.element = h('section.view', { id: 'projects-view', 'aria-labelledby': 'tab-projects' });
    this.search = h('input.filter', { type: 'search', placeholder: 'Search projects  ( / )', 'aria-label': 'Search projects',
      oninput: () => this.draw() });
    this.list = new VirtualList({ scroller, rowHeight: ROW_HEIGHT, label: 'Projects',
      renderRow: entry => this.projectRow(entry) });
    this.empty = h('p.empty');
    this.element.append(this.search, this.empty, this.list.element);
    for (const topic of ['model', 'errors']) store.subscribe(topic, () => this.draw());
  }

  draw() {
    const all = (this.store.model && this.store.model.projects) || [];
    const needle = this.search.value.trim().toLowerCase();
    const matching = all.filter(entry => !needle || `${entry.project.name} ${entry.project.path}`.toLowerCase().includes(needle));
    // Favourites first; otherwise the manager's order (most recent first) stays.
    const shown = matching.filter(entry => entry.project.favorite).concat(matching.filter(entry => !entry.project.favorite));
    this.empty.hidden = shown.length > 0;
    this.empty.textContent = all.length ? 'No project matches the search.'
      : 'No recent projects yet — projects you open in an installed tool show up here.';
    this.list.setItems(shown);
  }

  projectRow(entry) {
    const project = entry.project;
    const items = entry.open_items || [];
    const byDefault = items.find(item => item.key === entry.default_open_item_key) || items[0];
    const toolOf = item => (item && item.feed_item && (item.feed_item.name || item.feed_item.id)) || '';
    const open = item => this.store.run('projects:open', { project: entry, item }, entry.key);
    const mark = (method, value) => () => this.store.run(method, { project: entry, value }, entry.key);
    const element = row(this.store, {
      key: entry.key, iconUrl: project.icon, title: `${project.favorite ? '★ ' : ''}${project.name}`,
      details: [project.path, byDefault && `opens in ${toolOf(byDefault)}`].filter(Boolean).join(' · '),
      actions: byDefault && h('button', { text: 'Open', onclick: () => open(byDefault) }),
      menu: () => [
        ...items.map(item => ({ label: `Open with ${toolOf(item)}`, run: () => open(item) })),
        ...items.filter(item => item !== byDefault || !entry.default_open_item_key).map(item => ({
          label: `Always open with ${toolOf(item)}`,
          run: () => this.store.run('projects:setDefaultOpenItem', { project: entry, item }, entry.key) })),
        entry.default_open_item_key && { label: 'Forget the default tool',
          run: () => this.store.run('projects:removeDefaultOpenItem', { project: entry }, entry.key) },
        { label: project.favorite ? 'Remove from favourites' : 'Add to favourites',
          run: mark('projects:markFavorite', !project.favorite) },
        { label: 'Hide', run: mark('projects:markHidden', true) },
      ],
    });
    element.addEventListener('click', event => {
      if (byDefault && !event.target.closest('button')) open(byDefault);
    });
    return element;
  }
}
