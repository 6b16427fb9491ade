// A list that draws only the rows in view, so thousands of entries cost what a screenful
// costs. Rows have one fixed height (no layout jumps); the list keeps its full height so the
// scroll bar tells the truth. One row at a time is in the tab order (roving focus) and the
// arrow keys move it, drawing the rows they reach.

const OVERSCAN = 6;

// Lists draw together in the next animation frame: every list reads its place first (one
// layout for all), then adds its rows. Rows are positioned absolutely inside a list of
// fixed height, so adding them moves nothing that was measured.
const waiting = new Set();
function scheduleDraw(list) {
  if (!waiting.size) requestAnimationFrame(drawWaiting);
  waiting.add(list);
}
function drawWaiting() {
  const lists = [...waiting];
  waiting.clear();
  const ranges = lists.map(list => list.visibleRange());
  lists.forEach((list, index) => list.drawRange(ranges[index]));
}

export class VirtualList {
  constructor({ scroller, rowHeight, renderRow, label }) {
    this.scroller = scroller;
    this.rowHeight = rowHeight;
    this.renderRow = renderRow;
    this.items = [];
    this.rows = new Map();
    this.active = 0;
    this.element = document.createElement('div');
    this.element.className = 'vlist';
    this.element.setAttribute('role', 'list');
    this.element.setAttribute('aria-label', label);
    const schedule = () => scheduleDraw(this);
    scroller.addEventListener('scroll', schedule, { passive: true });
    window.addEventListener('resize', schedule);
    this.element.addEventListener('keydown', event => this.onKey(event));
  }

  setItems(items) {
    this.items = items;
    this.active = Math.min(this.active, Math.max(0, items.length - 1));
    this.element.style.height = `${items.length * this.rowHeight}px`;
    for (const row of this.rows.values()) row.remove();
    this.rows.clear();
    scheduleDraw(this);
  }

  visibleRange() {
    if (this.element.closest('[hidden]') || !this.element.isConnected) return [0, 0];
    const top = this.element.getBoundingClientRect().top - this.scroller.getBoundingClientRect().top;
    const first = Math.floor(-top / this.rowHeight) - OVERSCAN;
    const count = Math.ceil(this.scroller.clientHeight / this.rowHeight) + 2 * OVERSCAN;
    return [Math.max(0, first), Math.min(this.items.length, Math.max(0, first) + count)];
  }

  draw() {
    this.drawRange(this.visibleRange());
  }

  drawRange([first, last]) {
    for (const [index, row] of this.rows) {
      if ((index < first || index >= last) && !row.contains(document.activeElement)) {
        row.remove();
        this.rows.delete(index);
      }
    }
    const fragment = document.createDocumentFragment();
    for (let index = first; index < last; index++) {
      if (this.rows.has(index)) continue;
      const row = this.renderRow(this.items[index], index);
      row.dataset.row = String(index);
      row.setAttribute('role', 'listitem');
      row.setAttribute('aria-setsize', String(this.items.length));
      row.setAttribute('aria-posinset', String(index + 1));
      row.tabIndex = index === this.active ? 0 : -1;
      row.style.transform = `translateY(${index * this.rowHeight}px)`;
      this.rows.set(index, row);
      fragment.append(row);
    }
    this.element.append(fragment);
  }

  focusIndex(index) {
    if (!this.items.length) return;
    index = Math.max(0, Math.min(this.items.length - 1, index));
    const previous = this.rows.get(this.active);
    if (previous) previous.tabIndex = -1;
    this.active = index;
    const listTop = this.element.getBoundingClientRect().top - this.scroller.getBoundingClientRect().top
      + this.scroller.scrollTop;
    const rowTop = listTop + index * this.rowHeight;
    if (rowTop < this.scroller.scrollTop) this.scroller.scrollTop = rowTop;
    else if (rowTop + this.rowHeight > this.scroller.scrollTop + this.scroller.clientHeight)
      this.scroller.scrollTop = rowTop + this.rowHeight - this.scroller.clientHeight;
    this.draw();
    const row = this.rows.get(index);
    row.tabIndex = 0;
    row.focus();
  }

  onKey(event) {
    if (event.target.closest('input, select, textarea')) return;
    const row = event.target.closest('[data-row]');
    if (!row) return;
    const index = Number(row.dataset.row);
    const page = Math.max(1, Math.floor(this.scroller.clientHeight / this.rowHeight) - 1);
    const target = { ArrowDown: index + 1, ArrowUp: index - 1, PageDown: index + page, PageUp: index - page,
      Home: 0, End: this.items.length - 1 }[event.key];
    if (target === undefined || event.altKey) return;
    event.preventDefault();
    this.focusIndex(target);
  }
}
