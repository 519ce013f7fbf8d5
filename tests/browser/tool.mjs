// The tool and the browser that the tests run.
import assert from 'node:assert/strict';
import { execFileSync, spawn } from 'node:child_process';
import { accessSync, constants, mkdirSync, mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { createInterface } from 'node:readline';

const CHROMIUM = '/usr/bin/chromium';
const ARGUMENTS = ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
  '--disable-background-networking', '--disable-component-update', '--disable-sync'];

export const source = process.env.TESSEL_SOURCE ?? new URL('../..', import.meta.url).pathname;
export const sample = join(source, 'samples', 'tessel-sample.ts');
export const WAIT = 30_000;

const pictures = process.env.TESSEL_SCREENSHOTS ?? join(tmpdir(), 'tessel-screenshots');
mkdirSync(pictures, { recursive: true });
export const folder = mkdtempSync(join(tmpdir(), 'tessel-browser-'));
const tools = new Set();
process.on('exit', () => {
  for (const tool of tools) tool.kill('SIGKILL');
  rmSync(folder, { recursive: true, force: true });
});

/** The browser's driver; ends with 77 where there is no browser to test with. */
async function driver() {
  try {
    accessSync(CHROMIUM, constants.X_OK);
    return (await import('playwright-core')).chromium;
  } catch (error) {
    console.error(`NOT TESTED: the browser tests need ${CHROMIUM} and playwright-core ` +
      `(scripts/test installs both): ${error.message}`);
    process.exit(process.env.CI ? 1 : 77);
  }
}

/** Runs the tool on an input; gives {url, end}. */
export async function inspect(...inputs) {
  const tool = spawn(process.env.TESSEL, ['inspect', '--listen', '127.0.0.1:0', ...inputs],
    { stdio: ['ignore', 'pipe', 'inherit'] });
  tools.add(tool);
  const line = await new Promise((resolve, reject) => {
    createInterface(tool.stdout).once('line', resolve);
    tool.once('exit', (code) => reject(new Error(`the tool ended with ${code}`)));
  });
  const url = line.match(/http:\/\/\S+/)[0];
  return {
    url,
    end: () => new Promise((resolve) => {
      tool.removeAllListeners('exit');
      tool.once('exit', resolve);
      tool.kill('SIGINT');
    }),
  };
}

/** A browser that fails the test for what it complains of, and for requests to anybody but the tool. */
export async function browse() {
  const chromium = await driver();
  const context = await chromium.launchPersistentContext(join(folder, 'profile'),
    { executablePath: CHROMIUM, args: ARGUMENTS, viewport: { width: 1280, height: 860 }, timeout: WAIT });
  const page = context.pages()[0];
  page.setDefaultTimeout(WAIT);
  const wrong = [];
  let url = 'about:';
  page.on('pageerror', (error) => wrong.push(error.message));
  page.on('console', (message) => { if (message.type() === 'error') wrong.push(message.text()); });
  page.on('request', (request) => { if (!request.url().startsWith(url)) wrong.push(`asked ${request.url()}`); });
  return {
    page,
    open: async (address, hash = '') => {
      url = address;
      await page.goto('about:blank').catch(() => {});
      wrong.length = 0;
      await page.goto(address + hash);
    },
    check: () => assert.deepEqual(wrong, []),
    close: () => context.close(),
  };
}

/** Keeps a picture, and fails for a page that is wider than its window. */
export async function picture(page, name, { width = 1280, height = 860, scheme = 'light' } = {}) {
  await page.setViewportSize({ width, height });
  await page.emulateMedia({ colorScheme: scheme, reducedMotion: 'reduce' });
  await page.screenshot({ path: join(pictures, `${name}-${width}-${scheme}.png`) });
  const wide = await page.evaluate(() => document.documentElement.scrollWidth - innerWidth);
  assert.ok(wide <= 0, `${name} is ${wide} pixels too wide at ${width}`);
  await page.setViewportSize({ width: 1280, height: 860 });
}

/** A stream that python makes: an expression over tests/e2e/test_inspect.py. */
export function stream(expression) {
  return execFileSync('python3', ['-B', '-c',
    `import sys; from test_inspect import *; sys.stdout.buffer.write(${expression})`],
  { cwd: join(source, 'tests', 'e2e'), maxBuffer: 1 << 26 });
}
