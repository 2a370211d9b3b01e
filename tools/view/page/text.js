// Numbers, times and states in words.

export const kLengths = {
  mm: { perMetre: 1000, decimals: 1 },
  cm: { perMetre: 100, decimals: 2 },
  m: { perMetre: 1, decimals: 4 },
  inch: { perMetre: 1 / 0.0254, decimals: 3 },
};
export const kAngles = {
  degrees: { perRadian: 180 / Math.PI, decimals: 2, sign: '°' },
  radians: { perRadian: 1, decimals: 4, sign: 'rad' },
};
const kDeviceUnits = { inch: 'inch', centimetre: 'cm', metre: 'm' };

// The unit that the user chose, or that of the device.
export const lengthUnit = (chosen, tracker) =>
  (chosen in kLengths ? chosen : kDeviceUnits[tracker?.status.unit] ?? 'cm');

// No value is a dash; what rounds to zero has no sign that would flicker.
export function fixed(value, decimals) {
  if (!Number.isFinite(value)) return '–';
  const text = value.toFixed(decimals);
  return (/^-0\.?0*$/.test(text) ? text.slice(1) : text).replace('-', '\u2212');
}

const kDurations = [[1, 'µs', 1e-3], [10, 'ms', 1, 1], [1e3, 'ms', 1], [1e4, 's', 1e3, 1], [12e4, 's', 1e3],
  [72e5, 'min', 6e4], [Infinity, 'h', 36e5]];
export function duration(ms, least = 0) {
  if (!Number.isFinite(ms)) return '–';
  const [, unit, size, digits] = kDurations.find(([below]) => Math.max(ms, least) < below);
  return `${(Math.max(ms, 0) / size).toFixed(digits ?? 0)} ${unit}`;
}

export const day = (utc) => new Date(utc).toLocaleDateString('en-GB', { day: 'numeric', month: 'short', year: 'numeric' });

// The time of day, after the date if that is not today.
export function clock(utc) {
  if (!Number.isFinite(utc)) return '–';
  const date = day(utc);
  return (date === day(Date.now()) ? '' : `${date}, `) + new Date(utc).toLocaleTimeString('en-GB');
}

export const count = (value, options) => value?.toLocaleString('en', options) ?? '–';
export const bytes = (value) => `${count(value, { notation: 'compact' })} bytes`;

// Of each state: its mood, its word, and what the user can do.
const kStartAgain = 'Start the tracker again.';
const kStates = {
  starting: ['wait', 'Starting', 'Wait: some trackers need ten seconds and more.'],
  running: ['good', 'Running', ''],
  silent: ['bad', 'Silent', 'Check its power and its sensors. Poses go on by themselves.'],
  recovering: ['bad', 'Lost, being sought', 'Check cable and power.'],
  stopped: ['off', 'Stopped', kStartAgain],
  failed: ['bad', 'Failed', 'The status log says why. Then start the tracker again.'],
  lost: ['bad', 'No sign of life', 'Start it again, unless its program still runs.'],
  none: ['off', 'No tracker', kStartAgain],
  unreadable: ['bad', 'Cannot be read', 'Update Kinetrel here, or start the tracker from this account.'],
  unknown: ['off', 'Not known', ''],
};

// How a tracker is at a moment: { mood, word, reason, advice, since }.
export function stateOf(tracker, now) {
  const { state, stateText } = tracker.status;
  const silent = tracker.silentSince(now);
  if (state === 'running' && silent) {
    return { mood: 'bad', word: 'No new pose', reason: 'Nothing has come since then.',
      advice: kStates.silent[2], since: silent };
  }
  const [mood, word, advice] = kStates[state] ?? kStates.unknown;
  // The moment that matters is that of the last pose.
  const since = mood === 'good' || !silent ? tracker.stateSince : silent;
  return { mood, word, advice, reason: stateText, since };
}

// A cell of a CSV file. A spreadsheet must not take a name for a formula.
export function csvCell(value) {
  let text = String(value);
  if (typeof value === 'number') return Number.isFinite(value) ? text : '';
  if (/^[=+\-@\t\r]/.test(text)) text = `'${text}`;
  return /[",\r\n]/.test(text) ? `"${text.replaceAll('"', '""')}"` : text;
}

export const csv = (rows) => rows.map((row) => row.map(csvCell).join(',') + '\r\n').join('');
