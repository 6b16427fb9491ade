// Small DOM helpers shared by every view: element building, formatting, menus and dialogs.

// h('button.primary', {onclick, 'aria-label': 'x'}, 'text', child): attributes starting with
// "on" become listeners, `class`/`text` are shortcuts, children may be strings, nodes or arrays.
export function h(tag, attributes, ...children) {
  const [name, ...classes] = tag.split('.');
  const element = document.createElement(name || 'div');
  if (classes.length) element.className = classes.join(' ');
  for (const [key, value] of Object.entries(attributes || {})) {
    if (value === undefined || value === null || value === false) continue;
    if (key.startsWith('on')) element.addEventListener(key.slice(2), value);
    else if (key === 'class') element.className += (element.className ? ' ' : '') + value;
    else if (key === 'text') element.textContent = value;
    else if (key in element && typeof value !== 'string') element[key] = value;
    else element.setAttribute(key, value === true ? '' : value);
  }
  append(element, children);
  return element;
}

function append(element, children) {
  for (const child of children) {
    if (child === undefined || child === null || child === false) continue;
    if (Array.isArray(child)) append(element, child);
    else element.append(child instanceof Node ? child : String(child));
  }
}

export function clear(element) {
  while (element.firstChild) element.firstChild.remove();
  return element;
}

export function formatSize(bytes) {
  if (!(bytes > 0)) return '';
  const units = ['B', 'KB', 'MB', 'GB'];
  let value = bytes;
  let unit = 0;
  while (value >= 1024 && unit < units.length - 1) {
    value /= 1024;
    unit++;
  }
  return `${value >= 10 || unit === 0 ? Math.round(value) : value.toFixed(1)} ${units[unit]}`;
}

export function formatDuration(ms) {
  if (!(ms > 0)) return '';
  const seconds = Math.round(ms / 1000);
  if (seconds < 60) return `${seconds} s left`;
  return `${Math.round(seconds / 60)} min left`;
}

// A text cut with an ellipsis by CSS keeps its full value for hover and screen readers.
export function label(text, className = 'label') {
  return h(`span.${className}`, { title: text, text });
}

// A row menu (role="menu") under `anchor`: arrow keys move, Enter runs, Escape closes and
// gives the focus back. `items` are {label, run} or null for a separator; disabled ones are skipped.
export function openMenu(anchor, items) {
  closeMenus();
  const entries = items.filter(item => item && !item.hidden);
  if (!entries.length) return;
  const menu = h('div.menu', { role: 'menu' });
  const buttons = entries.map(item =>
    h('button.menu-item', {
      role: 'menuitem',
      tabindex: '-1',
      text: item.label,
      class: item.danger ? 'danger' : undefined,
      onclick: () => { close(); item.run(); },
    }));
  menu.append(...buttons);
  const close = () => {
    menu.remove();
    document.removeEventListener('mousedown', outside, true);
    anchor.setAttribute('aria-expanded', 'false');
    anchor.focus();
  };
  const outside = event => { if (!menu.contains(event.target)) close(); };
  menu.close = close;
  menu.addEventListener('keydown', event => {
    const index = buttons.indexOf(document.activeElement);
    const move = { ArrowDown: 1, ArrowUp: -1, Home: -index, End: buttons.length - 1 - index }[event.key];
    if (move !== undefined) {
      buttons[(index + move + buttons.length) % buttons.length].focus();
      event.preventDefault();
    } else if (event.key === 'Escape' || event.key === 'Tab') {
      close();
      event.preventDefault();
    }
  });
  document.body.append(menu);
  const box = anchor.getBoundingClientRect();
  const top = Math.min(box.bottom + 4, window.innerHeight - menu.offsetHeight - 8);
  menu.style.top = `${Math.max(8, top)}px`;
  menu.style.left = `${Math.max(8, box.right - menu.offsetWidth)}px`;
  anchor.setAttribute('aria-expanded', 'true');
  document.addEventListener('mousedown', outside, true);
  buttons[0].focus();
}

export function closeMenus() {
  for (const menu of document.querySelectorAll('.menu')) menu.close();
}

// A modal dialog (role="dialog"); the browser keeps focus inside and closes it on Escape.
// `build(close)` returns the body; the dialog removes itself when closed.
export function openDialog(title, build) {
  const heading = h('h2', { id: `dialog-${Date.now()}`, text: title });
  const dialog = h('dialog.dialog', { role: 'dialog', 'aria-labelledby': heading.id });
  const returnFocus = document.activeElement;
  const close = () => dialog.close();
  dialog.addEventListener('close', () => {
    dialog.remove();
    if (returnFocus && returnFocus.isConnected) returnFocus.focus();
  });
  dialog.append(heading, build(close));
  document.body.append(dialog);
  dialog.showModal();
  return dialog;
}

// A short confirmation that fades by itself ("Saved").
export function toast(text) {
  const region = document.getElementById('toasts');
  const note = h('div.toast', { role: 'status', text });
  region.append(note);
  setTimeout(() => note.remove(), 2500);
}
