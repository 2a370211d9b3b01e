// Puts the page together: the feed fills the model; each frame of the browser draws the newest.
import { Feed } from './feed.js';
import { kSpan } from './model.js';
import { Scene } from './scene.js';
import { View } from './view.js';
import { $, SensorTable, make, measure, setPressed, setText, showCondition, showFigures, showLink, showLog, showMeasure, showTabs } from './panels.js';
import { clock, csv, duration, kAngles, kLengths, lengthUnit } from './text.js';

const kWordsEvery = 100;  // ms; faster than that, digits cannot be read
const kCurvesEvery = 500;

let selected = 0;  // slot
let frozen = null;  // { at, back, histories }: the minute before `at`, and how far back is shown, in ms
let wanted = false;  // a picture is asked for
let wordsAt = 0;
let curvesAt = 0;
let drawn = 0;  // when the pose that was last drawn was published
const lags = [];  // ms from publication to picture, the last 600
let pictures = 0;  // with a new pose

const view = new View(makeScene(), ask);
const table = new SensorTable();
const feed = new Feed((what, slot) => {
  if (what === 'link') showLink(feed.link);
  if (what === 'log' && slot === selected) showLog(tracker(), true);
  if (what !== 'log' && what !== 'frame') showTrackers();
  ask();
});

function makeScene() {
  try { return new Scene($('canvas'), ask); } catch { return null; }
}

function tracker() { return feed.trackers.get(selected); }

function showTrackers() {
  const named = Number(location.hash.slice(1));  // as in http://127.0.0.1:8047/#3
  if (feed.trackers.has(named) && named !== selected) choose(named);
  else if (!tracker() && feed.trackers.size > 0) choose(feed.trackers.keys().next().value);
  $('empty').hidden = feed.trackers.size > 0 || feed.link.state !== 'open';
  $('tracker').hidden = !tracker();
  showTabs(feed.trackers, selected, feed.now(), pick);
}

function choose(slot) {
  setFrozen(false);
  selected = slot;
  view.choose(slot);
  $('tracker').setAttribute('aria-labelledby', `slot-${slot}`);
  showLog(tracker(), true);
  curvesAt = 0;
  showTabs(feed.trackers, selected, feed.now(), pick);
  $(`slot-${slot}`).scrollIntoView({ block: 'nearest' });
}

// By the user's hand; a link to this address shows the same tracker.
function pick(slot) {
  history.replaceState(null, '', `#${slot}`);
  choose(slot);
}

// ---- The moment that is shown ----------------------------------------------------------------------

const historyOf = (sensor) => frozen?.histories.get(sensor.number) ?? sensor.history;
const moment = () => (frozen ? frozen.at - frozen.back : feed.now());

function setFrozen(on) {
  frozen = on && tracker() ? {
    at: tracker().heard || feed.now(),
    back: 0,
    histories: new Map([...tracker().sensors].map(([number, sensor]) => [number, sensor.history.copy()])),
  } : null;
  setPressed($('freeze'), Boolean(frozen));
  $('scrub').disabled = !frozen;
  $('scrub').value = 0;
  refresh();
  return true;
}

function scrubTo(back) {
  frozen.back = Math.max(0, Math.min(kSpan, back));
  $('scrub').value = -frozen.back / 1000;
  refresh();
}

// To the sample of any sensor that comes next to the moment that is shown.
function step(direction) {
  if (!frozen) return false;
  const now = moment() + direction * 0.01;
  const gaps = [...frozen.histories.values()].map((history) => {
    const index = history.indexAt(now) + (direction > 0);
    return index >= 0 && index < history.size ? Math.abs(history.time(index) - now) : Infinity;
  });
  const gap = Math.min(...gaps);
  if (gap < kSpan) scrubTo(frozen.back - direction * (gap + 0.01));
  return true;
}

function posesAt(time) {
  const poses = new Map();
  for (const [number, sensor] of tracker()?.sensors ?? []) {
    const pose = frozen ? historyOf(sensor).at(time) : sensor.newest;
    if (pose) poses.set(number, pose);
  }
  return poses;
}

// ---- Drawing ---------------------------------------------------------------------------------------

// At most one picture is under way, and none while the page cannot be seen.
function ask() {
  if (wanted || document.hidden) return;
  wanted = true;
  requestAnimationFrame(draw);
}

function refresh() {
  wordsAt = 0;
  ask();
}

const units = () => ({ length: lengthUnit($('length').value, tracker()), angle: $('angle').value });

function draw() {
  wanted = false;
  const shown = tracker();
  if (!shown) return;
  const poses = posesAt(moment());
  const placed = [...poses].filter(([, { position }]) => !Number.isNaN(position[0]));
  view.draw(placed.map(([number, pose]) => {
    const sensor = shown.sensors.get(number);
    const trail = (span, most) => historyOf(sensor).between(pose.time - span, pose.time, most)
      .map(({ position }) => position).filter(([x]) => !Number.isNaN(x)).concat([pose.position]);
    return { number, name: sensor.name, pose, trail };
  }), units().length);
  // A task after the frame's callback runs when the picture is on its way to the screen.
  if (!frozen && shown.published !== drawn) painted.port2.postMessage(shown.published);
  drawn = shown.published;
  if (performance.now() - wordsAt >= kWordsEvery) showWords(shown, poses);
}

let epoch = performance.timeOrigin;  // 1970 to zero of performance.now(); the browser's own goes wrong as the clock is set
const painted = new MessageChannel();
painted.port1.onmessage = ({ data }) => {
  ++pictures;
  lags.push(epoch + performance.now() - data);
  if (lags.length > 600) lags.shift();
};

function showWords(shown, poses) {
  wordsAt = performance.now();
  epoch = Date.now() - wordsAt;
  const now = feed.now();
  const mood = showCondition(shown, now);
  const stale = (mood === 'bad' || mood === 'off') && !frozen;
  $('picture').dataset.stale = stale;
  table.show(shown, poses, units(), moment(), stale);
  showMeasure(shown, measure(shown, historyOf, moment(), units()));
  const lag = [...lags].sort((a, b) => a - b)[lags.length >> 1];
  showFigures(shown, units(), stale ? '–' : duration(lag < 0 ? NaN : lag, 1), stale);
  setText($('moment'), frozen ? `${clock(moment())}, ${(frozen.back / 1000).toFixed(2)} s back` : stale ? 'no live pose' : 'live');
  if (wordsAt - curvesAt < kCurvesEvery) return;
  curvesAt = wordsAt;
  table.drawCurves(shown);
  showLog(shown);
  showTabs(feed.trackers, selected, now, pick);
}

// Ages, silence and the wait for the server pass without any message.
setInterval(() => {
  if (document.hidden) return;
  showLink(feed.link);
  if (tracker() && performance.now() - wordsAt >= kWordsEvery) showWords(tracker(), posesAt(moment()));
}, 200);

// ---- Files and copies ------------------------------------------------------------------------------

function samplesAsCsv() {
  const { length, angle } = units();
  const rows = [...tracker().sensors.values()].flatMap((sensor) => historyOf(sensor).between(-Infinity, Infinity).map(
    ({ time, position, quaternion, angles }) => [selected, sensor.number, sensor.name, Number((time / 1000).toFixed(6)),
      ...position.map((value) => value * kLengths[length].perMetre), ...quaternion,
      ...angles.map((value) => value * kAngles[angle].perRadian)]));
  rows.sort((a, b) => a[3] - b[3]);
  const head = `slot,sensor,name,seconds since 1970,x LENGTH,y LENGTH,z LENGTH,qw,qx,qy,qz,azimuth ${angle},elevation ${angle},roll ${angle}`;
  return csv([head.replaceAll('LENGTH', length).split(','), ...rows]);
}

function save() {
  const href = URL.createObjectURL(new Blob([samplesAsCsv()], { type: 'text/csv' }));
  const time = new Date(moment()).toISOString().slice(0, 19).replaceAll(':', '-');
  make('a', { href, download: `kinetrel-${selected}-${time}.csv` }).click();
  setTimeout(() => URL.revokeObjectURL(href), 10000);
}

const measured = () => measure(tracker(), historyOf, moment(), units()).rows;
const asText = () => measured().map(([name, value, unit, note]) => `${name}: ${value} ${unit}${note ? ` (${note})` : ''}`).join('\n');
const asCsv = () => csv([['quantity', 'value', 'unit', 'note'],
  ...measured().map(([name, value, unit, note]) => [name, Number(value.replace('\u2212', '-')), unit, note ?? ''])]);

async function copy(text) {
  let done = true;
  try {
    await navigator.clipboard.writeText(text);
  } catch {  // a page of another machine has no such right
    const field = make('textarea', { value: text });
    document.body.append(field);
    field.select();
    done = document.execCommand('copy');
    field.remove();
  }
  setText($('copied'), `${done ? 'Copied' : 'The browser refused'} at ${clock(Date.now())}.`);
}

// ---- Controls --------------------------------------------------------------------------------------

let storage = {};
try { storage = localStorage; } catch { /* the browser forbids it: choices last as long as the page */ }

function keep(id, apply) {
  const field = $(id);
  const kept = storage[`kinetrel-${id}`];
  if ([...field.options].some(({ value }) => value === kept)) field.value = kept;
  field.onchange = () => {
    storage[`kinetrel-${id}`] = field.value;
    apply();
  };
}

const systemLight = matchMedia('(prefers-color-scheme: light)');
function setTheme() {
  document.documentElement.dataset.theme = $('theme').value || (systemLight.matches ? 'light' : 'dark');
  view.readColours();
  refresh();
}

keep('length', refresh);
keep('angle', refresh);
keep('theme', setTheme);
systemLight.onchange = setTheme;
for (const id of ['from', 'to', 'window']) $(id).onchange = refresh;
for (const button of $('views').children) button.onclick = () => view.look(button.dataset.view);
$('fit').onclick = () => view.fit();
$('trails').onclick = () => view.setTrails(!view.trails);
$('hemisphere').onchange = () => { view.hemisphere = $('hemisphere').value; ask(); };
$('freeze').onclick = () => setFrozen(!frozen);
$('scrub').oninput = () => scrubTo(-1000 * $('scrub').value);
$('save').onclick = save;
$('copy-text').onclick = () => copy(asText());
$('copy-csv').onclick = () => copy(asCsv());
$('retry').onclick = () => feed.look();
$('help-open').onclick = () => $('help').showModal();
view.onkey = (key) => {
  if (key === ' ') return setFrozen(!frozen);
  return ',.'.includes(key) && step(key === ',' ? -1 : 1);
};
document.onvisibilitychange = () => (document.hidden ? feed.pause() : feed.resume());

setTheme();
view.setTrails(true);
feed.start(document.hidden);

// What the page knows, to read: for tests, and for scripts in the browser's console.
globalThis.kinetrelView = {
  get trackers() { return feed.trackers; },
  get slot() { return selected; },
  get moment() { return moment(); },
  get poses() { return posesAt(moment()); },
  get lags() { return [...lags]; },
  get pictures() { return pictures; },
  pixel: (position) => view.camera.pixel(position, $('picture').clientWidth, $('picture').clientHeight),
};
