// A stream that is dropped on the page, or chosen, is inspected in place of the one before it.
import { notice, say, send } from './connection.js';

async function inspect(file) {
  if (!file) return;
  const tell = (part) => notice(`Sending ${file.name}: ${Math.floor(part * 100)} %`, 0);
  tell(0);
  const error = await send(file, tell);
  document.getElementById('notice').hidden = true;
  if (error) await say(error);
}

export function takeFiles() {
  const input = document.getElementById('file');
  input.addEventListener('change', () => {
    inspect(input.files[0]);
    input.value = '';
  });
  const cover = document.getElementById('drop');
  let inside = 0;
  const cares = (event) => event.dataTransfer?.types.includes('Files');
  addEventListener('dragenter', (event) => {
    if (cares(event)) cover.hidden = ++inside === 0;
  });
  addEventListener('dragleave', (event) => {
    if (cares(event)) cover.hidden = --inside <= 0;
  });
  addEventListener('dragover', (event) => {
    if (cares(event)) event.preventDefault();
  });
  addEventListener('drop', (event) => {
    if (!cares(event)) return;
    event.preventDefault();
    inside = 0;
    cover.hidden = true;
    inspect(event.dataTransfer.files[0]);
  });
}
