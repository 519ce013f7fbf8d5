// Tables that sort, and whose rows can be reached and chosen by keyboard.
import { make } from './connection.js';

const collator = new Intl.Collator(undefined, { numeric: true, sensitivity: 'base' });

/** Hexadecimal numbers sort by value, since they are all of one length; the rest as people read. */
export const compare = (a, b) =>
  typeof a === 'number' && typeof b === 'number' ? a - b : collator.compare(String(a), String(b));

/**
 * columns: [{title, class, sort}] where sort(row) gives what to compare. Rows are {key, value...}; fill(row, cells)
 * writes the cells of a row, which are kept from one time to the next.
 */
export class SortedTable {
  constructor({ label, columns, fill, empty, choose, activate }) {
    Object.assign(this, { columns, fill, choose, activate });
    this.rows = [];
    this.elements = new Map();
    this.by = -1;
    this.down = false;
    this.body = make('tbody');
    this.heads = columns.map((column, index) =>
      make('th', { class: column.class ?? '', scope: 'col' },
        make('button', { type: 'button', onclick: () => this.sortBy(index) }, column.title)));
    this.table = make('table', { 'aria-label': label, role: choose ? 'grid' : 'table' },
      make('thead', {}, make('tr', {}, ...this.heads)), this.body);
    if (choose) this.table.setAttribute('aria-multiselectable', 'true');
    this.nothing = make('p', { class: 'nothing' }, empty ?? 'Nothing yet');
    this.element = make('div', { class: 'scroll' }, this.table, this.nothing);
    if (choose) {
      this.body.addEventListener('click', (event) => this.onClick(event));
      this.body.addEventListener('dblclick', (event) => this.onActivate(this.rowOf(event.target)));
      this.body.addEventListener('keydown', (event) => this.onKey(event));
    }
  }

  sortBy(index) {
    if (this.by !== index) [this.by, this.down] = [index, false];
    else if (!this.down) this.down = true;
    else this.by = -1;
    this.heads.forEach((head, i) => {
      if (i === this.by) head.setAttribute('aria-sort', this.down ? 'descending' : 'ascending');
      else head.removeAttribute('aria-sort');
    });
    this.show(this.rows);
  }

  show(rows, emptyText) {
    this.rows = rows;
    if (emptyText !== undefined) this.nothing.textContent = emptyText;
    const sort = this.by >= 0 ? this.columns[this.by].sort : null;
    const sorted = sort ? [...rows].sort((a, b) => (this.down ? -1 : 1) * compare(sort(a), sort(b))) : rows;
    const before = this.elements;
    this.elements = new Map();
    const focused = document.activeElement?.closest?.('tr');
    const order = sorted.map((row) => {
      let tr = before.get(row.key);
      if (!tr) {
        tr = make('tr', {}, ...this.columns.map((column) => make('td', { class: column.class ?? '' })));
        // Told by the narrow layout, where the heads are not there.
        this.columns.forEach((column, i) => { tr.cells[i].dataset.title = column.title; });
      }
      this.elements.set(row.key, tr);
      tr.data = row;
      this.fill(row, tr.cells, tr);
      if (this.choose) {
        tr.setAttribute('aria-selected', String(Boolean(row.selected)));
        tr.tabIndex = -1;
      }
      return tr;
    });
    if (order.length !== this.body.rows.length || order.some((tr, i) => tr !== this.body.rows[i]))
      this.body.replaceChildren(...order);
    if (focused && this.body.contains(focused) && document.activeElement !== focused && !focused.contains(document.activeElement))
      focused.focus({ preventScroll: true });
    if (this.choose) {
      const reach = order.find((tr) => tr === focused) ?? order.find((tr) => tr.data.selected) ?? order[0];
      if (reach) reach.tabIndex = 0;
    }
    this.table.hidden = rows.length === 0;
    this.nothing.hidden = rows.length !== 0;
  }

  rowOf(target) {
    return target.closest?.('tr') ?? null;
  }

  select(tr, add) {
    const keys = new Set(add ? this.rows.filter((row) => row.selected).map((row) => row.key) : []);
    if (add && keys.has(tr.data.key)) keys.delete(tr.data.key);
    else keys.add(tr.data.key);
    this.choose(this.rows.filter((row) => keys.has(row.key)));
  }

  onClick(event) {
    const tr = this.rowOf(event.target);
    if (!tr) return;
    tr.focus({ preventScroll: true });
    this.select(tr, event.ctrlKey || event.metaKey || event.shiftKey);
  }

  onActivate(tr) {
    if (tr && this.activate) this.activate(tr.data);
  }

  onKey(event) {
    const tr = this.rowOf(event.target);
    if (!tr) return;
    const rows = [...this.body.rows];
    const at = rows.indexOf(tr);
    const page = 10;
    const to = { ArrowDown: at + 1, ArrowUp: at - 1, Home: 0, End: rows.length - 1, PageDown: at + page,
      PageUp: at - page }[event.key];
    if (to !== undefined) {
      const next = rows[Math.min(Math.max(to, 0), rows.length - 1)];
      tr.tabIndex = -1;
      next.tabIndex = 0;
      next.focus();
    } else if (event.key === ' ') {
      this.select(tr, event.ctrlKey || event.metaKey);
    } else if (event.key === 'Enter') {
      this.onActivate(tr);
    } else {
      return;
    }
    event.preventDefault();
  }
}
