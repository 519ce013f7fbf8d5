// What a person does with `tessel inspect`, in a browser. TESSEL names the tool, TESSEL_SOURCE the checkout,
// TESSEL_SCREENSHOTS the folder for pictures.
import assert from 'node:assert/strict';
import { appendFileSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { browse, folder, inspect, picture, sample, stream } from './tool.mjs';

const TITLES = ['Overview', 'Services', 'PAT', 'SDT', 'NIT', 'GLT', 'SGT', 'CAT', 'VCT', 'PID Map', 'OutPins'];
const NOT_DECODED = ['NIT', 'GLT', 'SGT', 'CAT'];

const browser = await browse();
const { page } = browser;
const tab = (name) => page.getByRole('tab', { name, exact: true });
const panel = () => page.getByRole('tabpanel');
const card = (name) => page.locator('.output').filter({ has: page.getByRole('heading', { name }) });

const tests = {
  async 'the ten pages of a running stream'() {
    const tool = await inspect(sample, '--loop');
    await browser.open(tool.url);
    await tab('OutPins').waitFor();
    assert.deepEqual(await page.getByRole('tab').allTextContents(), TITLES);
    await page.locator('#state[data-state="playing"]').waitFor();
    await page.getByText('Ψηφιδωτό モザイク').first().waitFor();
    await page.locator('.counted b').first().waitFor();
    await page.locator('.overview tbody tr').nth(17).waitFor();
    for (const scheme of ['light', 'dark']) {
      await picture(page, 'overview', { scheme });
      await picture(page, 'overview', { scheme, width: 400, height: 1500 });
    }
    for (const [name, text] of [['Services', '257 (0x0101), ISO13818-2 Video'], ['PAT', 'PMT of Service(id=0065'],
      ['SDT', 'Мозаика'], ['VCT', 'TESS-A'], ['PID Map', 'ISO14496-10'], ['OutPins', '513 (0x0201)']]) {
      await tab(name).click();
      await panel().locator('tbody td').filter({ hasText: text }).first().waitFor();
      for (const scheme of ['light', 'dark']) await picture(page, name.replace(' ', ''), { scheme });
      await picture(page, name.replace(' ', ''), { width: 400, height: 900 });
    }
    for (const name of NOT_DECODED) {
      await tab(name).click();
      await panel().getByText('Not decoded', { exact: true }).waitFor();
      assert.equal(await panel().locator('tbody tr').count(), 0);
      await picture(page, name);
    }
    await tool.end();
  },

  async 'by keyboard alone'() {
    const tool = await inspect(sample, '--loop');
    await browser.open(tool.url);
    await tab('OutPins').waitFor();
    await tab('Overview').focus();
    for (const title of [...TITLES.slice(1), TITLES[0]]) {
      await page.keyboard.press('ArrowRight');
      assert.equal(await page.locator(':focus').textContent(), title);
      assert.equal(await page.locator('[role=tab][aria-selected=true]').textContent(), title);
      const ring = await page.evaluate(() => getComputedStyle(document.activeElement).outlineStyle);
      assert.equal(ring, 'solid', 'the focus is to be seen');
    }
    await page.keyboard.press('End');
    await page.keyboard.press('ArrowLeft');
    // PID Map: choose a pin, a row, and map it with the button.
    await panel().locator('tbody tr').first().waitFor();
    await page.keyboard.press('Tab');
    assert.equal(await page.locator(':focus').getAttribute('aria-label'), 'Output pin');
    await page.keyboard.type('Output1');
    await panel().getByText('All PIDs').waitFor();
    await panel().locator('tr[tabindex="0"]').first().focus();
    for (let row = 0; !(await page.locator(':focus').textContent()).startsWith('257'); ++row) {
      assert.ok(row < 40, 'row 257 is there');
      await page.keyboard.press('ArrowDown');
    }
    await page.keyboard.press('Space');
    await page.locator('tr[aria-selected=true]').waitFor();
    await page.locator('#pidmap-1004[aria-disabled=false]').waitFor();
    await picture(page, 'PIDMap-row-chosen');
    await page.locator('#pidmap-1004').focus();
    await page.keyboard.press('Enter');
    const mapped = page.getByRole('grid', { name: 'PIDs mapped on the pin' });
    await mapped.getByText('0x0101').waitFor();
    await mapped.locator('tr[tabindex="0"]').focus();
    await page.keyboard.press('Enter');  // activates it, which takes it off
    await mapped.getByText('0x0101').waitFor({ state: 'detached' });
    await tool.end();
  },

  async 'a PID is found, mapped, counted and unmapped'() {
    const tool = await inspect(sample, '--loop');
    await browser.open(tool.url);
    const rows = page.locator('.overview tbody tr');
    await rows.filter({ hasText: '0x0202' }).getByText('AC-3 audio, eng').waitFor();
    assert.match(await rows.filter({ hasText: '0x0202' }).locator('.carries').getAttribute('title'), /PrivatePES, eng/);
    await page.getByLabel('Search PIDs').fill('audio Мозаика 0x0102');
    await rows.nth(1).waitFor({ state: 'detached' });
    assert.match(await rows.textContent(), /^258.*MPEG audio, ger/);
    await picture(page, 'search');
    await page.getByLabel('Search PIDs').fill('');
    await card('Output1').getByRole('textbox').fill('0x101');
    await card('Output1').getByRole('button', { name: 'Map on Output1' }).click();
    await card('Output1').locator('code', { hasText: '257 (0x0101)' }).waitFor();
    await card('Output1').locator('.counted b').filter({ hasText: /^([3-9]|\d\d+)$/ }).first().waitFor();
    await page.locator('.tag.mapped').filter({ hasText: 'Output1' }).first().waitFor();
    await picture(page, 'mapped', { scheme: 'dark' });
    await card('Output1').getByRole('button', { name: 'Unmap 257 (0x0101) from Output1' }).click();
    await card('Output1').locator('code', { hasText: '257' }).waitFor({ state: 'detached' });

    const dialog = page.getByRole('dialog');
    for (const answer of ['Cancel', 'Map it']) {
      await card('Output1').getByRole('textbox').fill('300');
      await page.keyboard.press('Enter');
      await dialog.getByText('The stream has had no packets of PID 300 (0x012C) so far.').waitFor();
      if (answer === 'Cancel') await picture(page, 'question', { width: 400, scheme: 'dark' });
      await dialog.getByRole('button', { name: answer }).click();
      await dialog.waitFor({ state: 'hidden' });
    }
    await card('Output1').locator('code', { hasText: '300 (0x012C)' }).waitFor();
    await tab('OutPins').click();
    await panel().getByText('Output1', { exact: true }).waitFor();
    await tab('Overview').click();
    await card('Output1').getByRole('textbox').fill('9000');
    await page.keyboard.press('Enter');
    await dialog.getByText("'9000' is not a PID. A PID is a number up to 8191").waitFor();
    await picture(page, 'message');
    await page.keyboard.press('Enter');
    await dialog.waitFor({ state: 'hidden' });

    await tab('PID Map').click();
    await page.getByLabel('PID', { exact: false }).and(page.locator('#pidmap-1010')).fill('zz');
    await page.locator('#pidmap-1004[aria-disabled=false]').click();
    await dialog.getByText("'zz' is not a PID.").waitFor();
    await dialog.getByRole('button').click();
    await tool.end();
  },

  async 'names are text'() {
    const file = join(folder, 'names.ts');
    writeFileSync(file, stream('programme(1, [(0x02, 0x51)], b"<script>window.hit = 1</script><img src=x onerror=hit=1>")'));
    let tool = await inspect(file);
    await browser.open(tool.url);
    await page.locator('#band, .overview').getByText('<script>window.hit = 1</script>').first().waitFor();
    await tab('SDT').click();
    await panel().getByText('<script>window.hit = 1</script>').first().waitFor();
    assert.equal(await page.evaluate(() => window.hit), undefined);
    assert.equal(await page.locator('body script, main img').count(), 0);
    await tool.end();

    writeFileSync(file, stream('programme(1, [(0x02, 0x51)], b"\\x11" + ("\\u202e\\u05d0\\u05d1\\x07 evil" + "W" * 100).encode("utf-16-be"))'));
    tool = await inspect(file);
    await browser.open(tool.url);
    await page.locator('.overview').getByText(/\ufffd\u05d0\u05d1\u2407 evilW+/).first().waitFor();
    for (const width of [1280, 400]) await picture(page, 'long-name', { width });
    await tab('SDT').click();
    await panel().getByText(/evilW+/).first().waitFor();
    for (const width of [1280, 400]) await picture(page, 'long-name-SDT', { width });
    await tool.end();
  },

  async 'a file grows, and a new version shows'() {
    const file = join(folder, 'growing.ts');
    writeFileSync(file, stream('programme(1, [(0x02, 0x51)])'));
    const tool = await inspect(file);
    await browser.open(tool.url, '#pat');
    await panel().locator('tbody tr').filter({ hasText: '81 (0x0051)' }).first().waitFor();
    await page.locator('#state').getByText('input ended').waitFor();
    await page.evaluate(() => { window.same = true; });
    appendFileSync(file, stream('programme(2, [(0x02, 0x51), (0x03, 0x52)])'));
    await panel().locator('tbody tr').filter({ hasText: '82 (0x0052)' }).waitFor();
    assert.equal(await page.evaluate(() => window.same), true, 'nothing was loaded anew');
    await tab('Overview').click();
    await page.getByText('PMT 0x0005 is replaced').waitFor();
    await tool.end();
  },

  async 'tables sort'() {
    const tool = await inspect(sample, '--loop');
    await browser.open(tool.url, '#vct');
    await panel().locator('tbody tr').nth(2).waitFor();
    const first = () => panel().locator('tbody td').first().textContent();
    const before = await first();
    const head = panel().getByRole('button', { name: 'Channel' });
    await head.click();
    await head.click();
    assert.equal(await panel().getByRole('columnheader', { name: 'Channel' }).getAttribute('aria-sort'), 'descending');
    assert.notEqual(await first(), before);
    await tool.end();
  },

  async 'a stream is dropped on the page'() {
    const none = join(folder, 'none.ts');
    writeFileSync(none, Buffer.alloc(50_000));
    const tool = await inspect(none);
    await browser.open(tool.url);
    await page.locator('#state').getByText('no transport stream found').waitFor();
    await picture(page, 'no-stream');
    await page.locator('#file').setInputFiles(sample);
    await page.locator('#input').getByText('tessel-sample.ts').waitFor();
    await tab('VCT').click();
    await panel().getByText('TESS-A').first().waitFor();

    const bytes = stream('programme(1, [(0x02, 0x51)], b"Dropped")').toString('base64');
    const transfer = await page.evaluateHandle((data) => {
      const made = new DataTransfer();
      made.items.add(new File([Uint8Array.from(atob(data), (c) => c.charCodeAt(0))], 'dropped.ts'));
      return made;
    }, bytes);
    await page.dispatchEvent('body', 'dragenter', { dataTransfer: transfer });
    await page.getByText('Drop the stream to inspect it').waitFor();
    await picture(page, 'drop');
    await page.dispatchEvent('body', 'drop', { dataTransfer: transfer });
    await page.locator('#input').getByText('dropped.ts').waitFor();
    await tab('SDT').click();
    await panel().getByText("'Dropped'").first().waitFor();
    await tool.end();
  },
};

let failed = 0;
for (const [name, test] of Object.entries(tests)) {
  try {
    await test();
    browser.check();
    console.log(`ok      ${name}`);
  } catch (error) {
    ++failed;
    console.log(`FAILED  ${name}\n${error.stack}`);
    await picture(page, `failed-${failed}`).catch(() => {});
  }
}
await browser.close();
console.log(`${Object.keys(tests).length - failed} passed, ${failed} failed`);
process.exit(failed ? 1 : 0);
