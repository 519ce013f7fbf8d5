// What the tool tells and takes. Texts go into the page as text alone.

const token = document.querySelector('meta[name="tessel-token"]').content;

/** Makes an element; children are elements or texts. */
export function make(tag, attributes = {}, ...children) {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (name.startsWith('on')) element.addEventListener(name.slice(2), value);
    else if (name === 'class') element.className = value;
    else if (value === true) element.setAttribute(name, '');
    else if (value !== false && value !== null && value !== undefined) element.setAttribute(name, value);
  }
  element.append(...children);
  return element;
}

/** Text that a stream may have sent, kept apart from the direction of what stands beside it. */
export const isolated = (text) => make('bdi', {}, text);

/** Calls handlers[event](data) for each event, handlers.connected(true or false) when the tool comes and goes. */
export function listen(handlers) {
  const source = new EventSource('/events');
  for (const name of ['session', 'pages', 'overview', 'page', 'log'])
    source.addEventListener(name, (event) => handlers[name](JSON.parse(event.data)));
  source.addEventListener('open', () => handlers.connected(true));
  source.addEventListener('error', () => handlers.connected(false));
}

async function post(path, request) {
  try {
    const response = await fetch(path, {
      method: 'POST',
      headers: { 'Content-Type': 'application/json', 'X-Tessel-Token': token },
      body: JSON.stringify(request),
    });
    return await response.json();
  } catch {
    return { error: 'tessel does not answer; it may have ended.' };
  }
}

/**
 * Asks for a change; shows what the page has to say of it, and puts what it wants to be sure of. Gives true when it was
 * done.
 */
export async function ask(path, request) {
  let answer = await post(path, request);
  if (answer.ask) {
    if (!(await confirms(answer.ask))) return false;
    answer = await post(path, { ...request, sure: true });
  }
  if (answer.error) notice(answer.error);
  for (const text of answer.messages ?? []) await say(text);
  return !answer.error && (answer.messages ?? []).length === 0;
}

/** Sends a file to be inspected; progress(part of it). Gives why it could not be, or nothing. */
export async function send(file, progress) {
  // First whether it is wanted: a browser hears of a refusal only when all has been sent.
  const { error } = await post('/api/room', { bytes: file.size });
  return error ?? sendBytes(file, progress);
}

function sendBytes(file, progress) {
  return new Promise((resolve) => {
    const request = new XMLHttpRequest();
    request.open('POST', '/api/upload?name=' + encodeURIComponent(file.name));
    request.setRequestHeader('X-Tessel-Token', token);
    request.setRequestHeader('Content-Type', 'application/octet-stream');
    request.upload.addEventListener('progress', (event) => progress(event.loaded / Math.max(event.total, 1)));
    request.addEventListener('loadend', () => {
      let error = request.status === 200 ? '' : 'The stream could not be sent.';
      try {
        error = JSON.parse(request.responseText).error ?? error;
      } catch {
        // What was not answered has a text already.
      }
      resolve(error);
    });
    request.send(file);
  });
}

/** A message that must be read; refusal: the text of a second button. Gives whether the first one was pressed. */
function show(text, agreement, refusal = '') {
  const dialog = document.getElementById('message');
  const [no, yes] = dialog.querySelectorAll('button');
  document.getElementById('message-text').textContent = text;
  yes.textContent = agreement;
  no.textContent = refusal;
  no.hidden = !refusal;
  dialog.returnValue = '';
  return new Promise((resolve) => {
    dialog.addEventListener('close', () => resolve(dialog.returnValue === 'yes'), { once: true });
    dialog.showModal();
    (refusal ? no : yes).focus();
  });
}

export const say = (text) => show(text, 'OK');
const confirms = (text) => show(text, 'Map it', 'Cancel');

let hiding = 0;

/** A message that goes by itself. */
export function notice(text, lasts = 6000) {
  const place = document.getElementById('notice');
  place.textContent = text;
  place.hidden = false;
  clearTimeout(hiding);
  if (lasts) hiding = setTimeout(() => { place.hidden = true; }, lasts);
}
