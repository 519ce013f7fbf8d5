// The stream at a glance: bit rates, PIDs with what they carry, and outputs with their maps.
import { ask, isolated, make } from './connection.js';
import { SortedTable } from './tables.js';

const COLOURS = 8;
const numbers = new Intl.NumberFormat('en-GB');

export const hex = (pid) => `0x${pid.toString(16).toUpperCase().padStart(4, '0')}`;

export const pidText = (pid) => `${pid} (${hex(pid)})`;

export function rateText(rate) {
  if (rate === null) return '–';
  if (rate >= 1e6) return `${(rate / 1e6).toFixed(rate >= 1e8 ? 0 : 2)} Mbit/s`;
  if (rate >= 1e3) return `${(rate / 1e3).toFixed(rate >= 1e5 ? 0 : 1)} kbit/s`;
  return `${rate} bit/s`;
}

export function sizeText(bytes) {
  const units = ['B', 'kB', 'MB', 'GB', 'TB'];
  let at = 0;
  for (; bytes >= 1000 && at < units.length - 1; ++at) bytes /= 1000;
  return `${at === 0 ? bytes : bytes.toFixed(1)} ${units[at]}`;
}

export function timeText(seconds) {
  const whole = Math.floor(seconds);
  const two = (n) => String(n).padStart(2, '0');
  return `${Math.floor(whole / 3600)}:${two(Math.floor(whole / 60) % 60)}:${two(whole % 60)}`;
}

const STATES = { playing: 'playing', waiting: 'waiting for input', ended: 'input ended', failed: 'failed' };

/** The line under the title, and the state beside it. */
export function showFacts(overview) {
  const state = document.getElementById('state');
  state.dataset.state = overview.state;
  const round = overview.rounds && overview.state === 'playing' ? `, round ${overview.rounds + 1}` : '';
  const text = overview.state === 'ended' && !overview.found
    ? `no transport stream found${overview.doubt && ': '}${overview.doubt}`
    : overview.state === 'failed' ? overview.error : STATES[overview.state] + round;
  if (state.textContent !== text) state.textContent = text;
  const facts = {
    'Bit rate': rateText(overview.rate),
    'Stream time': timeText(overview.seconds),
    'Packets': numbers.format(overview.packets),
    'Read': sizeText(overview.bytes),
    'Transport stream': overview.stream ?? '–',
    'Network': overview.network ?? '–',
    'Services': overview.complete ? String(overview.services.length) : `${overview.services.length}, incomplete`,
    'Damaged': numbers.format(overview.damaged),
  };
  const place = document.getElementById('facts');
  if (place.childElementCount === 0)
    for (const name of Object.keys(facts)) place.append(make('div', {}, make('dt', {}, name), make('dd')));
  Object.values(facts).forEach((value, i) => {
    const dd = place.children[i].lastChild;
    if (dd.textContent !== value) dd.textContent = value;
  });
  place.lastChild.classList.toggle('bad', overview.damaged > 0);
}

/** Which service a PID is of: its number among the services, or -1. */
function serviceOf(overview) {
  const of = new Map();
  overview.services.forEach((service, i) => {
    for (const pid of service.pids) if (!of.has(pid)) of.set(pid, i);
  });
  return (pid) => of.get(pid) ?? -1;
}

const serviceName = (service) => service.name ?? `service ${service.id}`;

const colour = (service) => (service < 0 ? 'none' : `s${service % COLOURS}`);

/** The bit rate as a bar, a part for each service. */
export function showBand(overview) {
  const of = serviceOf(overview);
  const parts = [...overview.services.map((service, i) => ({ name: serviceName(service), rate: 0, i })),
    { name: 'tables and others', rate: 0, i: -1 }, { name: 'null packets', rate: 0, i: -2 }];
  const tail = overview.services.length;
  for (const { pid, rate } of overview.pids)
    parts[pid === 0x1fff ? tail + 1 : of(pid) >= 0 ? of(pid) : tail].rate += rate ?? 0;
  const all = parts.reduce((sum, part) => sum + part.rate, 0);
  const shown = parts.filter((part) => part.rate > 0);
  const band = document.getElementById('band');
  band.hidden = all === 0;
  band.setAttribute('aria-label', 'Bit rate: ' + shown.map((part) => `${part.name} ${rateText(part.rate)}`).join(', '));
  band.replaceChildren(...shown.map((part) => {
    const text = make('span', {}, isolated(part.name), make('small', {}, rateText(part.rate)));
    const element = make('div', { class: part.i === -2 ? 'part null' : `part ${colour(part.i)}`,
      title: `${part.name}: ${rateText(part.rate)}` }, text);
    element.style.flexGrow = part.rate / all;
    return element;
  }));
}

export class OverviewView {
  constructor(openMap) {
    this.most = 1;
    this.table = new SortedTable({
      label: 'PIDs',
      empty: 'No packets yet',
      columns: [
        { title: 'PID', class: 'code', sort: (row) => row.pid },
        { title: 'Carries', class: 'carries', sort: (row) => row.words },
        { title: 'Service', class: 'of wide', sort: (row) => row.of },
        { title: 'Bit rate', class: 'number', sort: (row) => row.rate ?? -1 },
        { title: 'Packets', class: 'number wide', sort: (row) => row.packets },
        { title: 'Lost', class: 'number', sort: (row) => row.lost },
      ],
      fill: (row, cells) => this.fillPid(row, cells),
    });
    this.search = make('input', { type: 'text', 'aria-label': 'Search PIDs', placeholder: 'Search', spellcheck: 'false',
      autocomplete: 'off', oninput: () => this.showPids() });
    this.rows = [];
    this.outputs = make('div', { class: 'outputs' });
    this.cards = new Map();
    this.element = make('div', { class: 'overview' },
      make('section', { class: 'card' }, make('h2', {}, 'PIDs', this.search), this.table.element),
      make('section', { class: 'card' },
        make('h2', {}, 'Output pins', make('button', { type: 'button', class: 'button small', onclick: openMap }, 'Open PID Map')),
        this.outputs));
  }

  fillPid(row, cells) {
    if (cells[0].childElementCount === 0) {
      cells[0].append(make('b', {}, String(row.pid)), make('small', {}, hex(row.pid)));
      const tags = ['PCR', 'scrambled', 'mapped'].map((text) => make('span', { class: `tag ${text}` }, text));
      cells[1].append(make('div', {}, make('i', { class: 'dot' }), isolated(''), make('span', { class: 'tags' }, ...tags)));
      cells[2].append(isolated(''));
      cells[3].append(make('span', { class: 'bar' }, make('span')), make('span'));
    }
    const set = (node, text) => { if (node.textContent !== text) node.textContent = text; };
    const [dot, words, tags] = cells[1].firstChild.children;
    dot.className = `dot ${colour(row.service)}`;
    set(words, row.words || (row.service < 0 ? 'not announced' : ''));
    // What the tables say of it, to the letter.
    cells[1].title = row.text;
    set(cells[2].firstChild, row.of);
    cells[2].title = row.of;
    // Where there is no room for the column.
    cells[1].firstChild.dataset.of = row.of;
    const [bar, rate] = cells[3].children;
    bar.firstChild.className = colour(row.service);
    bar.firstChild.style.width = `${(100 * Math.min(row.rate ?? 0, this.most)) / this.most}%`;
    set(rate, rateText(row.rate));
    set(cells[4], numbers.format(row.packets));
    set(cells[5], row.lost ? numbers.format(row.lost) : '–');
    cells[5].classList.toggle('bad', row.lost > 0);
    const [pcr, scrambled, mapped] = tags.children;
    pcr.hidden = !row.pcr;
    scrambled.hidden = !row.scrambled;
    mapped.hidden = row.pins.length === 0;
    set(mapped, `→ ${row.pins.join(', ')}`);
  }

  show(overview) {
    const of = serviceOf(overview);
    this.most = Math.max(1, ...overview.pids.filter(({ pid }) => pid !== 0x1fff).map(({ rate }) => rate ?? 0));
    this.rows = overview.pids.map((row) => {
      const service = of(row.pid);
      return { ...row, key: row.pid, service, of: service < 0 ? '' : serviceName(overview.services[service]) };
    });
    this.showPids();
    const cards = new Map();
    for (const output of overview.outputs) {
      const card = this.cards.get(output.name) ?? this.makeCard(output.name);
      cards.set(output.name, card);
      card.show(output);
    }
    const order = [...cards.values()].map((card) => card.element);
    if (order.length !== this.outputs.children.length || order.some((card, i) => card !== this.outputs.children[i]))
      this.outputs.replaceChildren(...order);
    this.cards = cards;
  }

  /** Those that have each word of the search in what is to be seen of them. */
  showPids() {
    const wanted = this.search.value.toLowerCase().split(/\s+/);
    const rows = this.rows.filter((row) => {
      const text = [row.pid, hex(row.pid), row.words, row.text, row.of, row.scrambled ? 'scrambled' : '', ...row.pins]
        .join(' ').toLowerCase();
      return wanted.every((word) => text.includes(word));
    });
    this.table.show(rows, this.rows.length ? 'No PID has all of that' : 'No packets yet');
  }

  makeCard(name) {
    const content = make('span', { class: 'faint' });
    const counted = make('p', { class: 'counted' });
    const pids = make('ul', { class: 'chips', 'aria-label': `PIDs mapped on ${name}` });
    const input = make('input', { type: 'text', 'aria-label': `PID to map on ${name}`, placeholder: 'PID: 257 or 0x101',
      maxlength: 20, spellcheck: 'false', autocomplete: 'off' });
    const form = make('form', { class: 'map', onsubmit: async (event) => {
      event.preventDefault();
      if (await ask('/api/map', { pin: name, pid: input.value })) input.value = '';
    } }, input, make('button', { class: 'button', 'aria-label': `Map on ${name}` }, 'Map'));
    let shown = '';
    return {
      element: make('article', { class: 'output' }, make('h3', {}, isolated(name), content), counted, pids, form),
      show: (output) => {
        content.textContent = output.content;
        counted.replaceChildren(...(output.connected
          ? [make('b', {}, numbers.format(output.samples)), ' samples, ', make('b', {}, sizeText(output.bytes))]
          : ['leads nowhere until a PID is mapped']));
        counted.classList.toggle('faint', !output.samples);
        const next = output.pids.map(({ text }) => text).join();
        if (shown === next) return;
        shown = next;
        pids.replaceChildren(...output.pids.map(({ pid, text }) => make('li', {}, make('code', {}, text),
          make('button', { type: 'button', 'aria-label': `Unmap ${text} from ${name}`, title: 'Unmap',
            onclick: () => ask('/api/unmap', { pin: name, pid }) }, '×'))));
      },
    };
  }
}
