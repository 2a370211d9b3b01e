// What the browser's stories stand on: the programs, a real Chromium, and waiting for conditions.
import { spawn } from 'node:child_process';
import { mkdirSync, mkdtempSync, rmSync } from 'node:fs';
import { createRequire } from 'node:module';
import { tmpdir } from 'node:os';
import { join, resolve } from 'node:path';
import { fileURLToPath } from 'node:url';

// The packages lie in tests/npm for all tests.
const require = createRequire(new URL('../npm/package.json', import.meta.url));
const puppeteer = require('puppeteer-core');
export const { PNG } = require('pngjs');
const axeSource = require('axe-core').source;

const root = fileURLToPath(new URL('../..', import.meta.url));
const bin = resolve(process.env.KINETREL_BIN ?? join(root, 'build/release/bin'));
// `wine`: the programs are those of Windows, and run under it. The browser is outside.
export const runner = process.env.KINETREL_RUNNER;
const pictures = join(root, 'build/browser');
const kPatience = 60000;  // ms

export async function until(what, condition) {
  for (const end = Date.now() + kPatience; Date.now() < end;) {
    const value = await condition();
    if (value) return value;
    await new Promise((done) => setTimeout(done, 20));
  }
  throw new Error(`waited in vain until ${what}`);
}

// A running program; `ends` with the test that started it.
export class Program {
  output = '';

  constructor(test, name, options, settings = {}) {
    const command = runner ? [runner, `${join(bin, name)}.exe`] : [join(bin, name)];
    this.child = spawn(command[0], [...command.slice(1), ...options],
      { env: { ...process.env, ...settings }, stdio: ['ignore', 'pipe', 'pipe'] });
    this.ended = new Promise((done) => { this.child.on('exit', done); });
    this.child.on('error', (error) => { this.output += error; });
    for (const stream of [this.child.stdout, this.child.stderr]) stream.on('data', (text) => { this.output += text; });
    test.after(() => this.end());
  }

  says(text) { return until(`${this.child.spawnfile} says ${text}`, () => text.exec(this.output)?.[0]); }

  async end(signal = 'SIGTERM') {
    this.child.kill(signal);
    await this.ended;
  }
}

export function scratch(test) {
  const folder = mkdtempSync(join(tmpdir(), 'kinetrel-browser-'));
  test.after(() => rmSync(folder, { recursive: true, force: true }));
  return folder;
}

// The server under test. KINETREL_VIEW_URL names one that runs already, such as that of Wine.
export async function serve(test, options = ['--port', '0']) {
  if (process.env.KINETREL_VIEW_URL) return { url: process.env.KINETREL_VIEW_URL };
  const program = new Program(test, 'kinetrel-view', options);
  return { program, url: await program.says(/http:\/\/\S+\//) };
}

// A slot without a tracker, other runs on this machine in mind.
const taken = new Set();
export async function freeSlot(url) {
  const { trackers } = await (await fetch(`${url}api/trackers`)).json();
  for (const { slot } of trackers) taken.add(slot);
  const free = Array.from({ length: 16 }, (_, i) => 16 - i).find((slot) => !taken.has(slot));
  if (!free) throw new Error('all slots are in use');
  taken.add(free);
  return free;
}

// Three sensors on paths whose radii are 0.8, 2.4 and 7.2 m.
export async function simulated(test, url) {
  const slot = await freeSlot(url);
  const program = new Program(test, 'kinetrel', ['-d', '8', '-s', '0x7', '-z-', '-w', String(slot)]);
  await until('the tracker is there', async () => (await fetch(`${url}api/trackers/${slot}`)).ok);
  return { slot, program };
}

export async function launch(test) {
  const browser = await puppeteer.launch({
    executablePath: process.env.CHROMIUM ?? '/usr/bin/chromium',
    userDataDir: scratch(test),
    // WebGL 2 in software, and the page put together by the same software: else each picture is read back.
    args: ['--no-sandbox', '--use-angle=swiftshader', '--enable-unsafe-swiftshader', '--ignore-gpu-blocklist', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync'],
  });
  test.after(() => browser.close());
  return browser;
}

// A page whose every message on the console is kept in `messages`.
export async function open(test, browser, address, { width = 1920, height = 1080, theme = 'dark', before } = {}) {
  const context = await browser.createBrowserContext();
  const page = await context.newPage();
  page.messages = [];
  // A screenshot makes the drawing software complain of the screenshot.
  page.on('console', (message) => { if (!message.text().includes('GPU stall due to ReadPixels')) page.messages.push(message.text()); });
  page.on('pageerror', (error) => page.messages.push(error.stack));
  page.on('dialog', (dialog) => { page.messages.push(dialog.message()); dialog.dismiss(); });
  await page.setViewport({ width, height });
  await page.emulateMediaFeatures([{ name: 'prefers-color-scheme', value: theme }]);
  if (before) await page.evaluateOnNewDocument(before);
  await page.goto(address);
  test.after(() => context.close());
  return page;
}

export const openTracker = async (test, browser, url, slot, options) => {
  const page = await open(test, browser, `${url}#${slot}`, options);
  await sees(page, (wanted) => kinetrelView.slot === wanted && document.querySelectorAll('#rows tr').length > 0, slot);
  return page;
};

// Waits until `condition`, a function that runs in the page, is true.
export const sees = (page, condition, ...values) => page.waitForFunction(condition, { timeout: kPatience, polling: 20 }, ...values);

export const text = (page, selector) => page.$eval(selector, (element) => element.textContent);

export async function picture(page, name) {
  mkdirSync(pictures, { recursive: true });
  await page.screenshot({ path: join(pictures, `${name}.png`) });
}

// What an independent checker of accessibility complains about.
export async function complaints(page) {
  await page.evaluate(axeSource);
  const { violations } = await page.evaluate(() => axe.run());
  return violations.map(({ id, nodes }) => `${id}: ${nodes.map(({ html }) => html).join(' ')}`);
}
