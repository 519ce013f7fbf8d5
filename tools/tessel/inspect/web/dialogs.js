// Draws the dialogs of the property pages: their controls, in rows as their rectangles have them.
import { ask, isolated, make } from './connection.js';
import { pidText } from './overview.js';
import { SortedTable } from './tables.js';

// What screen readers call controls without a text, and captions where two lists stand above each other.
const LABELS = {
  1007: { services: 'Service', pat: 'Program', sdt: 'Table', vct: 'Table' },
  1009: 'Output pin', 1010: 'PID', 1012: 'Content', 1013: 'Pin name',
  112: 'PIDs that can be mapped', 113: 'PIDs mapped on the pin', 1006: 'PIDs',
};
const CAPTIONS = new Set([112, 113]);
const NOTHING = { 112: 'No PID to map', 113: 'No PID is mapped on this pin', 102: 'No table has come yet', 1006: 'No packets yet' };
const LINE = 14;
const FIRST_PIN = 1000;  // of the buttons that choose a pin
const PID_EDIT = 1010;

const PID_COLUMNS = new Set(['PID', 'PID Found', 'Mapped']);

/** A cell that is a PID, or begins with one, with the number as people write it. */
const withPid = (text) => text.replace(/^[0-9a-f]{4}(?=$|, )/, (pid) => pidText(parseInt(pid, 16)));

/** Controls that stand beside each other, from left to right. */
function inRows(controls) {
  const boxes = controls.map((control) => {
    const [left, top, , bottom] = control.rect;
    return { control, left, top, bottom: control.kind === 'choice' ? top + LINE : bottom };
  }).sort((a, b) => a.top - b.top);
  const rows = [];
  for (const box of boxes) {
    const row = rows.at(-1);
    if (row && box.top < row[0].bottom - 3 && box.control.kind !== 'list') row.push(box);
    else rows.push([box]);
  }
  return rows.map((row) => row.sort((a, b) => a.left - b.left).map((box) => box.control));
}

export class DialogView {
  constructor(page) {
    this.key = page.key;
    this.element = make('div', { class: 'page' });
    this.controls = new Map();
  }

  show(page) {
    if (this.controls.size === 0) {
      for (const row of inRows(page.controls)) this.addRow(row);
    }
    for (const control of page.controls) this.controls.get(control.id)?.show(control);
  }

  /** The buttons that choose pins are called as the pins are. */
  namePins(names) {
    names.forEach((name, i) => this.controls.get(FIRST_PIN + i)?.rename?.(name));
  }

  addRow(row) {
    const line = make('div', { class: row.some((control) => control.kind === 'list') ? 'line list' : 'line' });
    if (row.every((control) => control.kind === 'radio')) {
      line.setAttribute('role', 'radiogroup');
      line.setAttribute('aria-label', 'Output pin');
    }
    for (const [index, control] of row.entries()) {
      const next = row[index + 1];
      const view = this.makeControl(control, control.kind === 'text' && next?.kind === 'edit' ? next : null);
      this.controls.set(control.id, view);
      line.append(view.element);
    }
    this.element.append(line);
  }

  act(control, action, more = {}) {
    return ask('/api/act', { page: this.key, control: control.id, action, ...more });
  }

  label(id) {
    const label = LABELS[id];
    return typeof label === 'object' ? label[this.key] ?? 'Choice' : label;
  }

  id(control) {
    return `${this.key}-${control.id}`;
  }

  makeControl(control, labelOf) {
    switch (control.kind) {
      case 'button': return this.makeButton(control);
      case 'check':
      case 'radio': return this.makeToggle(control);
      case 'edit': return this.makeEdit(control);
      case 'choice': return this.makeChoice(control);
      case 'list': return this.makeList(control);
      default: return this.makeText(control, labelOf);
    }
  }

  makeText(control, labelOf) {
    const element = labelOf ? make('label', { for: this.id(labelOf) }) : make('p', { class: 'info' });
    return { element, show: ({ text }) => { element.textContent = text; element.hidden = text === ''; } };
  }

  makeButton(control) {
    const element = make('button', { type: 'button', class: 'button', id: this.id(control),
      onclick: () => { if (element.getAttribute('aria-disabled') !== 'true') this.act(control, 'click'); } });
    if (control.text === 'Map') element.classList.add('primary');
    return {
      element,
      show: ({ text, enabled }) => {
        element.textContent = text;
        // Stays where the keyboard has it.
        element.setAttribute('aria-disabled', String(!enabled));
      },
    };
  }

  makeToggle(control) {
    const input = make('input', { type: control.kind === 'check' ? 'checkbox' : 'radio', name: this.key,
      id: this.id(control), onchange: () => this.act(control, 'click') });
    const text = make('bdi');
    let name = '';
    return {
      element: make('label', { class: 'toggle' }, input, text),
      rename: (given) => { text.textContent = name = given; },
      show: (state) => {
        text.textContent = name || state.text;
        input.checked = state.checked;
        input.disabled = !state.enabled;
      },
    };
  }

  makeEdit(control) {
    let shown = control.text;
    let sending = Promise.resolve();
    let open = 0;
    const input = make('input', { type: 'text', id: this.id(control), maxlength: 200, spellcheck: 'false',
      autocomplete: 'off', 'aria-label': this.label(control.id), placeholder: control.id === PID_EDIT ? '257 or 0x101' : '',
      oninput: () => {
        const text = input.value;
        ++open;
        sending = sending.then(() => this.act(control, 'type', { text })).finally(() => { --open; });
      },
      onkeydown: (event) => {
        if (event.key === 'Enter') sending.then(() => this.controls.get(1004)?.element.click());
      } });
    return {
      element: input,
      show: ({ text, enabled }) => {
        input.disabled = !enabled;
        // What is being typed is newer than what comes back.
        if (open === 0 && text !== shown) input.value = text;
        shown = open === 0 ? text : null;
      },
    };
  }

  makeChoice(control) {
    let state = control;
    let shown = '';
    const select = make('select', { id: this.id(control), 'aria-label': this.label(control.id), class: 'grow',
      onchange: () => this.act(control, 'select', { rows: [select.selectedIndex], rev: state.rev }) });
    return {
      element: select,
      show: (next) => {
        state = next;
        const texts = JSON.stringify(next.rows);
        if (texts !== shown) {
          select.replaceChildren(...next.rows.map(([text]) => make('option', {}, text)));
          shown = texts;
        }
        select.selectedIndex = next.selected[0] ?? -1;
        select.disabled = !next.enabled || next.rows.length === 0;
      },
    };
  }

  makeList(control) {
    let state = control;
    let shown = '';
    const hasPids = (column) => PID_COLUMNS.has(control.columns[column]) || (this.key === 'services' && column === 0);
    const shownCell = (text, column) => (hasPids(column) ? withPid(text) : text);
    const table = new SortedTable({
      label: this.label(control.id) ?? 'Rows',
      columns: control.columns.map((title, i) => ({ title, sort: (row) => row.cells[i],
        class: PID_COLUMNS.has(title) ? 'code' : '' })),
      fill: (row, cells) => row.cells.forEach((text, i) => { if (cells[i]) cells[i].replaceChildren(isolated(shownCell(text, i))); }),
      choose: (rows) => this.act(control, 'select', { rows: rows.map((row) => row.index), rev: state.rev }),
      activate: (row) => this.act(control, 'activate', { rows: [row.index], rev: state.rev }),
    });
    table.element.addEventListener('focusout', (event) => {
      if (!this.element.contains(event.relatedTarget) && event.relatedTarget) this.act(control, 'leave');
    });
    const caption = CAPTIONS.has(control.id) ? [make('h3', {}, this.label(control.id))] : [];
    return {
      element: make('section', { class: 'list' }, ...caption, table.element),
      show: (next) => {
        state = next;
        const content = JSON.stringify([next.rows, next.selected, next.text]);
        if (content === shown) return;
        shown = content;
        const selected = new Set(next.selected);
        const seen = new Map();
        const rows = next.rows.map((cells, index) => {
          const text = cells.join('\t');
          const count = seen.get(text) ?? 0;
          seen.set(text, count + 1);
          return { key: `${count}\t${text}`, index, cells, selected: selected.has(index) };
        });
        table.show(rows, next.text || NOTHING[control.id]);
      },
    };
  }
}
