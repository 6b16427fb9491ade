// Pieces every list row is made of: the icon box, the two text lines, the busy state with
// its ring and Cancel, the inline error and the row menu button.

import { h, label, openMenu, formatSize } from './dom.js';

export const ROW_HEIGHT = 56;

export function icon(url, name) {
  const box = h('span.icon', { 'aria-hidden': 'true' });
  if (url) box.append(h('img', { src: url, alt: '', width: 32, height: 32, loading: 'lazy' }));
  else box.textContent = (name || '?').trim().charAt(0).toUpperCase();
  return box;
}

export function toolName(entry) {
  const record = entry.feed_item || {};
  return (entry.settings && entry.settings.custom_name) || entry.name || record.name || record.id || '';
}

export function qualityName(record) {
  return (record && record.quality && record.quality.name) || '';
}

// "Update 120 MB" or "Update · patch 3 MB".
export function updateLabel(install) {
  const size = formatSize(install.size);
  return install.use_patch ? `Update · patch ${size}` : `Update ${size}`.trim();
}

// A row: icon, title, details line (replaced by the error while one is shown), actions.
export function row(store, { key, iconUrl, title, details, actions, menu, className }) {
  const error = store.errors.get(key);
  const text = h('span.text', {},
    label(title, 'title'),
    error
      ? h('span.error-line', { role: 'alert' }, label(error, 'label'),
        h('button.dismiss', { 'aria-label': 'Dismiss error', text: '×', onclick: () => store.clearError(key) }))
      : label(details, 'details'));
  const more = menu && h('button.icon-button', {
    'aria-label': `More actions for ${title}`, 'aria-haspopup': 'menu', 'aria-expanded': 'false', text: '⋯',
    onclick: event => openMenu(event.currentTarget, menu()),
  });
  const element = h(`div.row${className ? `.${className}` : ''}`, { 'aria-label': title },
    icon(iconUrl, title), text, h('span.actions', {}, actions, more));
  element.addEventListener('keydown', event => {
    if (event.target !== element) return;
    if (event.key === 'Enter') {
      const primary = element.querySelector('.actions button');
      if (primary) primary.click();
    } else if ((event.key === 'ContextMenu' || (event.shiftKey && event.key === 'F10')) && more) {
      event.preventDefault();
      more.click();
    }
  });
  return element;
}

// The busy state of a row: a ring that follows the action's own progress and Cancel.
export function busy(store, progress, title) {
  const ring = h('span.ring', {
    role: 'progressbar', 'aria-label': `${progress.workitem || 'Working'}: ${title}`,
    'aria-valuemin': '0', 'aria-valuemax': '100', 'data-progress-id': progress.progress_id,
  });
  updateRing(ring, store.progress);
  return [ring, progress.cancelable && h('button', {
    text: 'Cancel',
    onclick: () => store.run('stopAction', { id: progress.progress_id }, 'progress'),
  })];
}

export function updateRing(ring, total) {
  const parts = (total && total.subprogress) || [];
  const own = parts.find(part => part.id === ring.dataset.progressId);
  const fraction = own && own.all > 0 ? Math.min(1, own.current / own.all) : 0;
  ring.style.setProperty('--fraction', String(fraction));
  ring.setAttribute('aria-valuenow', String(Math.round(fraction * 100)));
  ring.title = `${Math.round(fraction * 100)} %`;
}

// What a failed update leaves behind, in words: the build that still works.
export function stillInstalled(entry) {
  const version = entry.feed_item && entry.feed_item.version;
  return message => version ? `${message} — ${version} is still installed and works.` : message;
}
