// The words and tables of the page. What a tracker says goes in as text, never as HTML.
import { bytes, clock, count, day, duration, fixed, kAngles, kLengths, stateOf } from './text.js';
import { between, pathLength, rest } from './measure.js';

const kColours = ['#ffb454', '#5cc0ff', '#7ddb8f', '#ff8fb3', '#c7a6ff', '#f2e06b', '#5fd8c8', '#ff9d76'];
const kNoPose = { position: [NaN, NaN, NaN], angles: [NaN, NaN, NaN] };

export const colourOf = (number) => kColours[(number - 1) % kColours.length];
export const $ = (id) => document.getElementById(id);

// make('td', { role: 'cell' }, ...children)
export function make(tag, fields = {}, ...children) {
  const element = Object.assign(document.createElement(tag), fields);
  element.append(...children);
  return element;
}

export function setText(element, text) { if (element.textContent !== text) element.textContent = text; }
export function setPressed(button, on) { button.ariaPressed = String(on); }

function setMood(element, mood, word) {
  element.dataset.mood = mood;
  setText(element, word);
}

// Makes `count` children, the excess ones removed.
function resize(list, count, add) {
  while (list.children.length > count) list.lastChild.remove();
  while (list.children.length < count) list.append(add());
  return [...list.children];
}

// ---- Connection and trackers -----------------------------------------------------------------------

const kLinkWords = { connecting: ['wait', 'Connecting'], open: ['good', 'Connected'], lost: ['bad', 'Server lost'] };

export function showLink({ state, since, retryAt, reason }) {
  setMood($('link'), ...kLinkWords[state]);
  $('outage').hidden = state !== 'lost';
  if (state !== 'lost') return;
  setText($('outage-what'), `The server of this page is gone since ${clock(since)}. ${reason}`);
  const wait = Math.ceil((retryAt - Date.now()) / 1000);
  setText($('outage-next'), wait > 0 ? `Trying again in ${wait} s.` : 'Trying again now.');
}

function makeTab(slot) {
  const tab = make('button', { role: 'tab', id: `slot-${slot}` }, make('span'), make('span', { className: 'state' }));
  tab.setAttribute('aria-controls', 'tracker');
  return tab;
}

export function showTabs(trackers, selected, now, choose) {
  $('trackers').hidden = trackers.size === 0;
  const list = $('trackers');
  const tabs = [...trackers.keys()].map((slot) => $(`slot-${slot}`) ?? makeTab(slot));
  if (tabs.length !== list.children.length || tabs.some((tab, i) => tab !== list.children[i])) {
    const { activeElement } = document;
    list.replaceChildren(...tabs);
    activeElement.focus();
  }
  [...trackers.values()].forEach((tracker, i) => {
    const { slot, status, sensors: { size } } = tracker;
    const { mood, word } = stateOf(tracker, now);
    const tab = tabs[i];
    Object.assign(tab, { ariaSelected: String(slot === selected), tabIndex: slot === selected ? 0 : -1 });
    tab.onclick = () => choose(slot);
    tab.onkeydown = ({ key }) => {
      const way = { ArrowRight: 1, ArrowLeft: -1 }[key];
      if (!way) return;
      const next = tabs.at((i + way) % tabs.length);
      next.focus();
      next.click();
    };
    setText(tab.firstChild, `${slot}  ${tracker.name}`);
    const rate = mood === 'good' && status.rate ? ` · ${status.rate.toFixed(0)} Hz` : '';
    setMood(tab.lastChild, mood, `${word}${rate} · ${size} sensor${size === 1 ? '' : 's'}`);
  });
}

export function showCondition(tracker, now) {
  const { mood, word, since, reason, advice } = stateOf(tracker, now);
  setText($('name'), tracker.name);
  setMood($('state'), mood, Number.isFinite(since) ? `${word} since ${clock(since)} (${duration(now - since)})` : word);
  setText($('reason'), mood === 'good' ? '' : reason);
  setText($('advice'), advice);
  return mood;
}

// ---- Sensors ---------------------------------------------------------------------------------------

export class SensorTable {
  #rows = new Map();
  #made = '';

  // `poses`: of each sensor that has one at the moment that is shown.
  show(tracker, poses, units, moment, silent) {
    const length = kLengths[units.length];
    const angle = kAngles[units.angle];
    const rate = silent ? NaN : tracker.status.rate || NaN;
    this.#arrange(tracker, units);
    for (const [number, sensor] of tracker.sensors) {
      const row = this.#rows.get(number);
      const pose = poses.get(number) ?? kNoPose;
      const age = moment - pose.time;
      setText(row.name, sensor.name);
      setText(row.note, noteOf(sensor));
      row.line.dataset.stale = !(age < 1000);
      [...pose.position.map((value) => fixed(value * length.perMetre, length.decimals)),
        ...pose.angles.map((value) => fixed(value * angle.perRadian, angle.decimals)),
        duration(age, 1), fixed(rate * sensor.share, 0), fixed(sensor.jitter.newest * 1000, 3),
      ].forEach((text, i) => setText(row.values[i], text));
    }
  }

  // The curves of jitter, which has a new figure twice a second.
  drawCurves(tracker) {
    for (const [number, { curve }] of this.#rows) {
      const values = tracker.sensors.get(number)?.jitter.values ?? [];
      const top = Math.max(...values, 1e-6);
      const points = values.map((value, i) => `${i + 60 - values.length},${(19 - 18 * value / top).toFixed(1)}`);
      curve.setAttribute('points', points.join(' '));
    }
  }

  #arrange({ slot, sensors }, { length, angle }) {
    const sign = angle === 'degrees' ? '°' : 'rad';
    const labels = ['Sensor', `x, ${length}`, `y, ${length}`, `z, ${length}`, `Azimuth, ${sign}`, `Elevation, ${sign}`, `Roll, ${sign}`,
      'Age', 'Rate, Hz', 'Jitter, mm'];
    const wanted = [slot, ...sensors.keys(), ...labels].join();
    if (wanted === this.#made) return;
    this.#made = wanted;
    $('columns').replaceChildren(...labels.map((label) => make('th', { role: 'columnheader', scope: 'col', textContent: label.replace(', ', '\n') })));
    this.#rows = new Map([...sensors.keys()].map((number) => [number, makeRow(number, labels.slice(1))]));
    $('rows').replaceChildren(...[...this.#rows.values()].map((row) => row.line));
  }
}

function makeRow(number, labels) {
  const name = make('span', { className: 'who' });
  const note = make('span', { className: 'note' });
  const mark = make('span', { className: 'mark', textContent: number });
  mark.style.background = colourOf(number);
  const values = labels.map(() => make('span'));
  const cells = labels.map((label, i) => {
    const cell = make('td', { role: 'cell' }, values[i]);
    cell.dataset.label = label;
    return cell;
  });
  const drawing = $('curve').content.cloneNode(true);
  const curve = drawing.querySelector('polyline');
  cells.at(-1).append(drawing);
  const line = make('tr', { role: 'row' }, make('th', { role: 'rowheader', scope: 'row' }, mark, name, note), ...cells);
  return { line, name, note, values, curve };
}

function noteOf({ code, buttons, filterLag }) {
  const pressed = [...Array(32).keys()].filter((bit) => (buttons >>> bit) & 1).map((bit) => bit + 1);
  return [code && `device code ${code}`, pressed.length && `buttons ${pressed.join(', ')}`,
    filterLag && `filters add ${duration(filterLag * 1000)}`].filter(Boolean).join(', ');
}

// ---- Measurements ----------------------------------------------------------------------------------

// What the fields choose: { rows: [[name, value, unit, note]], moved }.
export function measure(tracker, historyOf, time, units) {
  const [from, to] = [$('from'), $('to')].map((field) => tracker.sensors.get(Number(field.value)));
  const rows = [];
  if (!from || !to) return { rows, moved: false };
  const { perMetre, decimals } = kLengths[units.length];
  const angle = kAngles[units.angle];
  const byAxis = (list, digits) => list.map((value, i) => `${'xyz'[i]}\u00a0${fixed(value * perMetre, digits)}`).join(', ');
  const addLength = (name, metres, digits, note) => rows.push([name, fixed(metres * perMetre, digits), units.length, note]);
  const addAngle = (name, radians, digits) => rows.push([name, fixed(radians * angle.perRadian, digits), angle.sign, '']);
  const [a, b] = [from, to].map((sensor) => historyOf(sensor).at(time));
  if (a && b) {
    const both = between(a, b);
    addLength('Distance', both.distance, decimals, byAxis(both.step, decimals));
    addAngle('Angle', both.angle, angle.decimals);
  }
  const samples = historyOf(from).between(time - 1000 * $('window').value, time);
  const still = rest(samples);
  addLength(`Path of ${from.number}`, pathLength(samples), decimals, `${still.count} samples`);
  addLength(`Standard deviation of ${from.number}`, still.total, decimals + 1, byAxis(still.deviation, decimals + 1));
  addAngle(`Angle deviation of ${from.number}`, still.angle, angle.decimals + 1);
  return { rows, moved: still.moved };
}

export function showMeasure(tracker, { rows, moved }) {
  const names = [...tracker.sensors.values()].map(({ number, name }) => [String(number), `${number} ${name}`]);
  [$('from'), $('to')].forEach((field, i) => {
    const { value } = field;
    resize(field, names.length, () => make('option')).forEach((option, k) => {
      [option.value] = names[k];
      setText(option, names[k][1]);
    });
    const known = names.some(([number]) => number === value);
    if (names.length > 0) field.value = known ? value : (names[i] ?? names[0])[0];
  });
  showList($('measured'), rows.map(([name, value, unit, note]) => [name, value + (unit === '°' ? '' : ' ') + unit, note]));
  $('moved').hidden = !moved;
}

// ---- Figures and log -------------------------------------------------------------------------------

export function showFigures(tracker, units, lag, stale) {
  const { status } = tracker;
  const { rate, latencyMean, jitter } = stale ? {} : status;
  const time = (seconds) => duration(seconds && seconds * 1000);
  const { perRadian, sign } = kAngles[units.angle];
  showList($('figure-list'), [
    ['Rate', `${fixed(rate, 1)} Hz`, `stated ${fixed(status.nominalRate, 0)} Hz`],
    ['Latency', time(latencyMean), `worst ${time(status.latencyMax)}`],
    ['Jitter of the frames', time(jitter), 'standard deviation'],
    ['Publication to picture', lag, 'if both clocks agree'],
    ['Frames', count(status.frames), `${count(status.failedReads)} failed reads`],
    ['Dropped records', count(status.dropped), `${count(status.recoveries)} recoveries`],
    ['From the device', bytes(status.bytesIn), `${bytes(status.bytesOut)} to it`],
    ['Started', clock(tracker.utc(status.started)), `azimuth zero ${fixed(status.azimuthZero * perRadian, 2)}${sign}`],
  ]);
}

function showList(list, rows) {
  resize(list, rows.length, () => make('div', {}, make('dt'), make('dd', {}, make('span'), make('small')))).forEach(({ children: [term, detail] }, i) => {
    [term, ...detail.children].forEach((element, k) => setText(element, rows[i][k]));
  });
}

let logDay = '';

// Anew also when a day has passed, for lines of today and of other days look different.
export function showLog({ log }, fresh) {
  const today = day(Date.now());
  if (!fresh && today === logDay) return;
  logDay = today;
  const lines = $('lines');
  const atEnd = lines.scrollTop + lines.clientHeight >= lines.scrollHeight - 8;
  lines.replaceChildren(...log.map(({ time, code, text }) => make('li', {}, make('time', { textContent: clock(time * 1000) }),
    make('span', { textContent: text, className: code < 0 ? 'failure' : '' }))));
  if (atEnd) lines.scrollTop = lines.scrollHeight;
}
