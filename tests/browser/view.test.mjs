// Stories of the page of kinetrel-view in a real browser.
import assert from 'node:assert/strict';
import { copyFileSync, openSync, readFileSync, readdirSync, rmSync, writeSync } from 'node:fs';
import { join } from 'node:path';
import { after, before, describe, it } from 'node:test';
import { PNG, Program, complaints, freeSlot, launch, open, openTracker, picture, runner, scratch, sees, serve, simulated, text, until } from './world.mjs';

const kRadii = [0.8, 2.4, 7.2];  // m, of the simulated tracker's paths
const kHues = [35, 202, 133];  // degrees, of the colours of sensors 1 to 3
const ours = !process.env.KINETREL_VIEW_URL;  // the server runs here and may be ended

const poses = (page) => page.evaluate(() => [...kinetrelView.poses].map(([sensor, pose]) => ({ sensor, ...pose })));
const mood = (page) => page.$eval('#state', (element) => element.dataset.mood);
const seesMood = (page, wanted) => sees(page, (value) => document.getElementById('state').dataset.mood === value, wanted);
const close = (a, b, most, what) => assert.ok(Math.abs(a - b) <= most, `${what}: ${a} is not ${b}`);
const turn = (angle) => Math.atan2(Math.sin(angle), Math.cos(angle));

// Where the tracker's description says that its sensors are.
function assertOnPath({ sensor, position: [x, y, z], angles: [azimuth, elevation] }) {
  const radius = kRadii[sensor - 1];
  close(Math.hypot(x, y), radius, 1e-4 * radius, `radius of ${sensor}`);
  close(z, x / 4, 1e-4 * radius, `height of ${sensor}`);
  close(turn(azimuth - Math.atan2(y, x) - Math.PI), 0, 1e-3, `azimuth of ${sensor}`);
  close(elevation, Math.asin(x / radius / 4), 1e-3, `elevation of ${sensor}`);
}

// The middle of what a screenshot has in a hue.
function middleOfHue(image, hue) {
  const [across, down] = [[], []];
  for (let i = 0; i < image.data.length; i += 4) {
    const [r, g, b] = image.data.subarray(i, i + 3);
    const most = Math.max(r, g, b);
    const range = most - Math.min(r, g, b);
    if (most < 100 || range < 0.4 * most) continue;
    const found = 60 * (most === r ? (g - b) / range : most === g ? 2 + (b - r) / range : 4 + (r - g) / range);
    if (Math.abs(turn((found - hue) * Math.PI / 180)) > 0.1) continue;
    across.push(i / 4 % image.width);
    down.push(Math.floor(i / 4 / image.width));
  }
  assert.ok(across.length > 30, `the hue ${hue} is seen`);
  const middle = (list) => list.sort((a, b) => a - b)[list.length >> 1];
  return [middle(across), middle(down)];
}

describe('kinetrel-view in a browser', { timeout: 600000 }, () => {
  let browser;
  let url;
  let tracker;
  const ends = [];
  const suite = { after: (end) => ends.unshift(end) };
  before(async () => {
    ({ url } = await serve(suite));
    tracker = await simulated(suite, url);
    browser = await launch(suite);
  });
  after(async () => { for (const end of ends) await end(); });

  const watch = (test, options) => openTracker(test, browser, url, tracker.slot, options);

  it('shows the sensors where the tracker says', async (test) => {
    const page = await watch(test);
    await page.click('#freeze');
    const shown = await poses(page);
    assert.equal(shown.length, 3);
    shown.forEach(assertOnPath);
    // From the top, x goes up and y goes right, both by the same scale.
    await page.click('[data-view=top]');
    await page.click('#trails');
    await page.$eval('#labels', (labels) => { labels.hidden = true; });
    const canvas = await page.$('#canvas');
    const image = PNG.sync.read(Buffer.from(await canvas.screenshot()));
    const seen = kHues.map((hue) => middleOfHue(image, hue));
    const step = (a, b) => [seen[b][0] - seen[a][0], seen[a][1] - seen[b][1]];
    const metres = (a, b) => [shown[b].position[1] - shown[a].position[1], shown[b].position[0] - shown[a].position[0]];
    const scale = Math.hypot(...step(0, 2)) / Math.hypot(...metres(0, 2));
    for (const [a, b] of [[0, 1], [0, 2], [1, 2]]) {
      metres(a, b).forEach((value, i) => close(step(a, b)[i], value * scale, 10, `pixels from ${a + 1} to ${b + 1}`));
    }
    assert.deepEqual(page.messages, []);
  });

  it('freezes, looks back, and goes on', async (test) => {
    const page = await watch(test);
    await sees(page, () => kinetrelView.trackers.get(kinetrelView.slot).sensors.get(1).history.size > 120);
    await page.click('#freeze');
    const [frozen] = await poses(page);
    const frames = await page.evaluate(() => kinetrelView.trackers.get(kinetrelView.slot).frame);
    await sees(page, (seen) => kinetrelView.trackers.get(kinetrelView.slot).frame > seen + 30, frames);
    assert.deepEqual((await poses(page))[0], frozen);
    await page.focus('#scrub');
    for (let i = 0; i < 50; ++i) await page.keyboard.press('ArrowLeft');
    const back = (await poses(page))[0];
    assert.ok(back.time <= frozen.time - 999 && back.time > frozen.time - 2000, 'the sample of a second ago');
    assertOnPath(back);
    await sees(page, () => document.getElementById('moment').textContent.endsWith('1.00 s back'));
    await page.click('#freeze');
    await sees(page, (seen) => kinetrelView.poses.get(1).time > seen, frozen.time);
    await sees(page, () => document.getElementById('moment').textContent === 'live');
    assert.deepEqual(page.messages, []);
  });

  it('saves and copies what it has', async (test) => {
    const page = await watch(test);
    const folder = scratch(test);
    const session = await page.createCDPSession();
    await session.send('Browser.setDownloadBehavior', { behavior: 'allow', downloadPath: folder, browserContextId: page.browserContext().id });
    await page.select('#length', 'm');
    await sees(page, () => kinetrelView.trackers.get(kinetrelView.slot).sensors.get(3).history.size > 100);
    await page.click('#save');
    const name = await until('the file is there', () => readdirSync(folder).find((file) => file.endsWith('.csv')));
    const [head, ...rows] = readFileSync(join(folder, name), 'utf8').trim().split('\r\n').map((line) => line.split(','));
    assert.deepEqual(head.slice(0, 7), ['slot', 'sensor', 'name', 'seconds since 1970', 'x m', 'y m', 'z m']);
    assert.ok(rows.length >= 300);
    for (const [slot, sensor, , time, x, y, z] of rows) {
      assert.equal(Number(slot), tracker.slot);
      close(Number(time), Date.now() / 1000, 120, 'date');
      close(Math.hypot(x, y), kRadii[sensor - 1], 1e-3, 'radius in the file');
      close(Number(z), x / 4, 1e-3, 'height in the file');
    }
    await page.browserContext().overridePermissions(new URL(url).origin, ['clipboard-read', 'clipboard-write']);
    await page.select('#to', '3');
    await page.click('#freeze');
    await page.click('#copy-csv');
    await sees(page, () => document.getElementById('copied').textContent.startsWith('Copied'));
    const copied = await page.evaluate(() => navigator.clipboard.readText());
    const [first, , third] = await poses(page);
    const apart = Math.hypot(...first.position.map((value, i) => value - third.position[i]));
    const [quantity, value, unit] = copied.split(/\r?\n/)[1].split(',');
    assert.deepEqual([quantity, unit], ['Distance', 'm']);
    close(Number(value), apart, 1e-3, 'distance');
    await page.click('#copy-text');
    await until('the text is copied', async () => {
      const [, number] = /^Distance: (\S+) m \(x.*\nAngle: /.exec(await page.evaluate(() => navigator.clipboard.readText())) ?? [];
      return Number(number) === Number(value);
    });
    assert.deepEqual(page.messages, []);
  });

  for (const [width, height] of [[390, 844], [1920, 1080]]) {
    for (const theme of ['dark', 'light']) {
      it(`can be read at ${width} pixels, ${theme}`, async (test) => {
        const page = await watch(test, { width, height, theme });
        await sees(page, () => document.querySelector('polyline').points.length > 4);
        const size = await page.evaluate(() => [document.documentElement.scrollWidth, innerWidth]);
        assert.ok(size[0] <= size[1], 'nothing lies beside the screen');
        await picture(page, `page-${width}-${theme}`);
        assert.deepEqual(await complaints(page), []);
        await page.click('#help-open');
        assert.deepEqual(await complaints(page), []);
        await picture(page, `help-${width}-${theme}`);
        assert.deepEqual(page.messages, []);
      });
    }
  }

  it('is turned, moved and zoomed by the mouse', async (test) => {
    const page = await watch(test);
    await page.click('#freeze');
    const places = () => page.evaluate(() => [[0, 0, 0], [1, 0, 0]].map((place) => kinetrelView.pixel(place)));
    const box = await (await page.$('#canvas')).boundingBox();
    const drag = async () => {
      const [x, y] = [box.x + box.width / 2, box.y + box.height / 2];
      await page.mouse.move(x, y);
      await page.mouse.down();
      await page.mouse.move(x + 60, y + 40);
      await page.mouse.up();
    };
    const size = ([a, b]) => Math.hypot(a.x - b.x, a.y - b.y);
    await page.click('[data-view=top]');
    await until('it is seen from the top', async () => { const [a, b] = await places(); return Math.abs(a.x - b.x) < 0.1; });
    await page.keyboard.down('Shift');
    await drag();  // from now on nothing else moves the picture
    const start = await places();
    await drag();
    await page.keyboard.up('Shift');
    const moved = await places();
    moved.forEach(({ x, y }, i) => { close(x - start[i].x, 60, 2, 'moved right'); close(y - start[i].y, 40, 2, 'moved down'); });
    await page.mouse.wheel({ deltaY: -300 });
    await until('it is larger', async () => size(await places()) > 1.3 * size(moved));
    await drag();
    await until('it is turned', async () => { const [a, b] = await places(); return Math.abs(a.x - b.x) > 5; });
    assert.deepEqual(page.messages, []);
  });

  it('shows all again after its window was narrow', async (test) => {
    const page = await watch(test);
    // A metre in pixels.
    const seen = () => page.evaluate(() => [[0, 0, 0], [1, 0, 0]].map((place) => kinetrelView.pixel(place)).reduce((a, b) => Math.hypot(a.x - b.x, a.y - b.y)));
    await page.setViewport({ width: 60, height: 1080 });
    await until('it is small', async () => await seen() < 3);
    await page.setViewport({ width: 1920, height: 1080 });
    await until('it is as before', async () => await seen() > 15);
  });

  it('can be used with the keyboard alone', async (test) => {
    const page = await watch(test);
    const reached = new Set();
    for (let i = 0; i < 60; ++i) {
      await page.keyboard.press('Tab');
      const [id, ring] = await page.evaluate(() => {
        const { activeElement: element } = document;
        return [element.id || element.dataset.view, getComputedStyle(element).outlineStyle];
      });
      if (!id) continue;
      assert.equal(ring, 'solid', `the focus on ${id} is seen`);
      reached.add(id);
    }
    for (const id of ['length', 'help-open', `slot-${tracker.slot}`, 'orbit', 'fit', 'trails', 'hemisphere', 'canvas', 'freeze', 'save',
      'from', 'to', 'window', 'copy-text', 'lines']) assert.ok(reached.has(id), `${id} is reached`);
    await page.focus('#canvas');
    const at = () => page.evaluate(() => kinetrelView.pixel([1, 0, 0]));
    for (const [key, pressed] of [['4', 'top'], ['2', 'front'], ['3', 'side'], ['1', 'orbit']]) {
      await page.keyboard.press(key);
      assert.equal(await page.$eval('#views [aria-pressed=true]', (button) => button.dataset.view), pressed);
    }
    for (const key of ['ArrowLeft', '+', 'f']) {
      const last = await at();
      await page.keyboard.press(key);
      await sees(page, (x) => kinetrelView.pixel([1, 0, 0]).x !== x, last.x);
    }
    await page.keyboard.press('Space');
    assert.equal(await page.$eval('#freeze', (button) => button.ariaPressed), 'true');
    const [now] = await poses(page);
    await page.keyboard.press(',');
    assert.ok((await poses(page))[0].time < now.time);
    assert.deepEqual(page.messages, []);
  });

  it('costs nothing in a background tab', async (test) => {
    const page = await watch(test);
    const session = await page.createCDPSession();
    await session.send('Network.enable');
    const sent = [];
    let frames = 0;
    session.on('Network.webSocketFrameSent', ({ response }) => sent.push(response.payloadData));
    session.on('Network.webSocketFrameReceived', ({ response }) => { frames += response.payloadData.includes('"type":"frame"'); });
    await until('frames come', () => frames > 10);
    const setHidden = (hidden) => page.evaluate((value) => {
      Object.defineProperty(document, 'hidden', { configurable: true, get: () => value });
      document.dispatchEvent(new Event('visibilitychange'));
    }, hidden);
    await setHidden(true);
    await until('the page says pause', () => sent.includes('pause'));
    const [seen, drawn] = [frames, await page.evaluate(() => kinetrelView.lags.length)];
    const frame = async () => (await (await fetch(`${url}api/trackers/${tracker.slot}`)).json()).frame.frame;
    const start = await frame();
    await until('the tracker has gone on', async () => await frame() > start + 60);
    assert.ok(frames - seen < 10, `${frames - seen} frames came to a hidden page`);
    assert.ok(await page.evaluate(() => kinetrelView.lags.length) <= drawn + 2, 'nothing is drawn');
    await setHidden(false);
    await until('frames come again', () => frames > seen + 10);
    assert.ok(sent.includes('resume'));
    assert.deepEqual(page.messages, []);
  });

  it('keeps its tables without WebGL', async (test) => {
    const page = await watch(test, { before: () => { HTMLCanvasElement.prototype.getContext = () => null; } });
    assert.ok(await page.$eval('#no-picture', (note) => !note.hidden));
    const cell = await text(page, '#rows td');
    await sees(page, (old) => document.querySelector('#rows td').textContent !== old, cell);
    assert.deepEqual(page.messages, []);
  });

  it('shows a held tracker, says when it is unplugged, and goes on', { skip: Boolean(runner) }, async (test) => {
    const port = join(scratch(test), 'port');
    const emulator = new Program(test, 'kinetrel-emulate',
      ['fastrak', '--motion', 'hold:20,-10,5,30,20,10', '--receivers', '2', '--link', port, '--fault', 'unplug:3@usr1']);
    await emulator.says(/kinetrel --device fastrak/);
    const slot = await freeSlot(url);
    new Program(test, 'kinetrel', ['-d', '2', '-s', '3', '-w', String(slot)], { KINETREL_COM1: port });
    const page = await openTracker(test, browser, url, slot);
    await seesMood(page, 'good');
    await sees(page, () => (document.querySelector('#rows td')?.textContent ?? '–') !== '–');
    const cells = await page.$$eval('#rows tr:first-child td', (list) => list.slice(0, 6).map((cell) => cell.textContent));
    assert.deepEqual(cells, ['20.00', '\u221210.00', '5.00', '30.00', '20.00', '10.00']);
    await sees(page, () => /Standard deviation of 10\.000 cm/.test(document.getElementById('measured').textContent));
    assert.ok(await page.$eval('#moved', (note) => note.hidden), 'a held sensor did not move');
    const start = Date.now();
    emulator.child.kill('SIGUSR1');
    await seesMood(page, 'bad');
    const shownAfter = Date.now() - start;
    test.diagnostic(`unplug is shown after ${shownAfter} ms`);
    assert.ok(shownAfter < 2000, 'unplug is shown in under 2 s');
    assert.equal(await page.$eval('#picture', (element) => element.dataset.stale), 'true');
    assert.match(await text(page, '#state'), /since \d\d:\d\d:\d\d/);
    assert.notEqual(await text(page, '#advice'), '');
    await picture(page, 'unplugged');
    assert.deepEqual(await complaints(page), []);
    await seesMood(page, 'good');
    assert.deepEqual(page.messages, []);
  });

  it('shows two trackers, and the end of one', async (test) => {
    const second = await simulated(test, url);
    const page = await watch(test);
    await sees(page, (slot) => document.getElementById(`slot-${slot}`), second.slot);
    const choose = (slot) => page.$eval(`#slot-${slot}`, (tab) => tab.click());  // others' trackers come and go
    await choose(second.slot);
    await sees(page, (slot) => kinetrelView.slot === slot && kinetrelView.poses.size === 3, second.slot);
    (await poses(page)).forEach(assertOnPath);
    await second.program.end('SIGKILL');
    await sees(page, () => document.getElementById('state').textContent.startsWith('No new pose since'));
    await sees(page, () => document.getElementById('state').textContent.startsWith('No sign of life'));
    await choose(tracker.slot);
    await seesMood(page, 'good');
    assert.deepEqual(page.messages, []);
  });

  it('takes no name for HTML', { skip: !ours || Boolean(runner) }, async (test) => {
    const slot = await freeSlot(url);
    const file = (of) => `/dev/shm/KinetrelStream${(of - 1).toString(16).toUpperCase()}`;
    const evil = '<img src=x onerror="globalThis.hit=1"><script>globalThis.hit=1</script>';
    test.after(() => rmSync(file(slot), { force: true }));
    copyFileSync(file(tracker.slot), file(slot));
    const stream = readFileSync(file(slot));
    const [run, log] = [stream.readUInt32LE(48), stream.readUInt32LE(64)];
    const descriptor = openSync(file(slot), 'r+');
    // The texts of docs/stream.md: the device's name, a sensor's, and of all lines of the log.
    const places = [[run + 160, 256], [run + 416, 128], [run + 544, 32], ...Array.from({ length: 64 }, (_, i) => [log + 256 * i + 24, 232])];
    for (const [offset, size] of places) writeSync(descriptor, Buffer.from(evil.slice(0, size - 1).padEnd(size, '\0')), 0, size, offset);
    const page = await openTracker(test, browser, url, slot);
    await sees(page, (name) => document.getElementById('name').textContent === name, evil);
    await sees(page, () => document.getElementById('lines').textContent.includes('<script>'));
    assert.equal(await page.$$eval('img, script:not([src="app.js"])', (list) => list.length), 0);
    assert.equal(await page.evaluate(() => globalThis.hit), undefined);
    await page.setViewport({ width: 390, height: 844 });
    assert.ok(await page.evaluate(() => document.documentElement.scrollWidth <= innerWidth), 'a long name stays on the screen');
    assert.deepEqual(page.messages, []);
  });

  it('says that the server is gone, and comes back with it', { skip: !ours }, async (test) => {
    const first = await serve(test);
    const page = await openTracker(test, browser, first.url, tracker.slot);
    await first.program.end();
    await sees(page, () => !document.getElementById('outage').hidden);
    assert.match(await text(page, '#outage'), /gone since .*Trying again/s);
    await sees(page, () => document.getElementById('state').textContent.startsWith('Not known'));
    await picture(page, 'server-lost');
    assert.deepEqual(await complaints(page), []);
    await serve(test, ['--port', new URL(first.url).port]);
    await sees(page, () => document.getElementById('outage').hidden);
    const time = await page.evaluate(() => kinetrelView.poses.get(1).time);
    await sees(page, (before) => kinetrelView.poses.get(1).time > before, time);
  });

  it('needs the token of its address once', { skip: !ours }, async (test) => {
    const { url: bare, program } = await serve(test, ['--port', '0', '--listen', '127.0.0.1']);
    assert.equal((await fetch(bare)).status, 401);
    const page = await openTracker(test, browser, /http:\S+/.exec(program.output)[0], tracker.slot);
    await page.goto(`${bare}#${tracker.slot}`);
    await sees(page, () => kinetrelView.pictures > 10);
    assert.deepEqual(page.messages, []);
  });

  it('says how to start a tracker when there is none', async (test) => {
    const page = await open(test, browser, 'about:blank');
    await page.setRequestInterception(true);
    page.on('request', (request) => (request.url().endsWith('api/trackers')
      ? request.respond({ contentType: 'application/json', body: JSON.stringify({ version: '0', now: 1, utc: Date.now() / 1000, trackers: [] }) })
      : request.continue()));
    await page.goto(url);
    await sees(page, () => !document.getElementById('empty').hidden);
    assert.match(await text(page, '#empty'), /No tracker runs on this machine.*kinetrel -d 8/s);
    await picture(page, 'empty');
    assert.deepEqual(await complaints(page), []);
    assert.deepEqual(page.messages, []);
  });
});
