// The tabs, and who shows what comes.
import { listen, make } from './connection.js';
import { DialogView } from './dialogs.js';
import { LogView } from './log.js';
import { OverviewView, showBand, showFacts } from './overview.js';
import { takeFiles } from './upload.js';

const tabs = document.getElementById('tabs');
const panels = document.getElementById('panels');
const log = new LogView();
const overview = new OverviewView(() => choose('pidmap', true));
const views = new Map();

function addTab(key, title, ...content) {
  const tab = make('button', { type: 'button', role: 'tab', id: `tab-${key}`, 'aria-controls': `panel-${key}`,
    'aria-selected': 'false', tabindex: -1, onclick: () => choose(key) }, title);
  const panel = make('section', { role: 'tabpanel', id: `panel-${key}`, 'aria-labelledby': `tab-${key}`, tabindex: -1,
    hidden: true }, ...content);
  tabs.append(tab);
  panels.append(panel);
}

function choose(key, focus = false) {
  if (!document.getElementById(`tab-${key}`)) key = 'overview';
  for (const tab of tabs.children) {
    const chosen = tab.id === `tab-${key}`;
    tab.setAttribute('aria-selected', String(chosen));
    tab.tabIndex = chosen ? 0 : -1;
    document.getElementById(tab.getAttribute('aria-controls')).hidden = !chosen;
    if (!chosen) continue;
    tab.scrollIntoView({ block: 'nearest', inline: 'nearest' });
    if (focus) tab.focus();
  }
  history.replaceState(null, '', `#${key}`);
}

tabs.addEventListener('keydown', (event) => {
  const all = [...tabs.children];
  const at = all.indexOf(document.activeElement);
  const to = { ArrowRight: at + 1, ArrowLeft: at - 1, Home: 0, End: all.length - 1 }[event.key];
  if (at < 0 || to === undefined) return;
  event.preventDefault();
  choose(all.at(to % all.length).id.slice('tab-'.length), true);
});

new ResizeObserver(() => {
  tabs.querySelector('[aria-selected=true]')?.scrollIntoView({ block: 'nearest', inline: 'nearest' });
}).observe(tabs);

addTab('overview', 'Overview', overview.element, log.element);

listen({
  connected(there) {
    if (there) return;
    const state = document.getElementById('state');
    state.dataset.state = 'failed';
    state.textContent = 'tessel has ended';
  },
  session() {
    log.clear();
  },
  pages({ input, pages }) {
    document.getElementById('input').textContent = input;
    document.title = `${input} – tessel inspect`;
    for (const { key, title } of pages) {
      if (document.getElementById(`tab-${key}`)) continue;
      const view = views.get(key) ?? new DialogView({ key });
      views.set(key, view);
      addTab(key, title, view.element);
    }
    choose(location.hash.slice(1) || 'overview');
  },
  page(page) {
    if (!views.has(page.key)) views.set(page.key, new DialogView(page));
    views.get(page.key).show(page);
  },
  overview(data) {
    showFacts(data);
    showBand(data);
    overview.show(data);
    views.get('outpins')?.namePins(data.outputs.map(({ name }) => name));
  },
  log(lines) {
    log.add(lines);
  },
});

takeFiles();
