// What happened, newest at the end.
import { make } from './connection.js';

const MOST = 500;
const clock = new Intl.DateTimeFormat('en-GB', { hour: '2-digit', minute: '2-digit', second: '2-digit',
  fractionalSecondDigits: 3 });

export class LogView {
  constructor() {
    this.list = make('ol', { class: 'log', tabindex: 0, role: 'log', 'aria-label': 'Events' });
    this.element = make('section', { class: 'card events' }, make('h2', {}, 'Events'), this.list);
    this.last = 0;
    // Keeps to the end for those who read there, also when the list was out of sight meanwhile.
    this.follows = true;
    this.list.addEventListener('scroll', () => {
      const { scrollHeight, scrollTop, clientHeight } = this.list;
      if (clientHeight) this.follows = scrollHeight - scrollTop - clientHeight < 30;
    });
    new ResizeObserver(() => this.follow()).observe(this.list);
  }

  follow() {
    if (this.follows) this.list.scrollTop = this.list.scrollHeight;
  }

  clear() {
    this.list.replaceChildren();
    this.last = 0;
  }

  add(lines) {
    for (const { line, time, kind, text } of lines) {
      if (line <= this.last) continue;
      this.last = line;
      this.list.append(make('li', { 'data-kind': kind }, make('time', {}, clock.format(time)), make('bdi', {}, text)));
    }
    while (this.list.childElementCount > MOST) this.list.firstChild.remove();
    this.follow();
  }
}
