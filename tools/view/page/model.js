// What the page knows: every slot's tracker, and the last minute of each of its sensors. Times are
// milliseconds since 1970 by the server's clock; lengths are metres, angles radians.

const kKept = 4096;  // samples of a sensor: 68 s at the 60 messages a second that the server sends
const kFields = 10;  // x, y, z; w, x, y, z; azimuth, elevation, roll. NaN: not valid
const kPeriod = 500;  // ms between two figures of jitter
export const kSpan = 60000;  // ms that can be looked back on

const numbers = (list, count) =>
  list ? list.map((value) => value ?? NaN) : new Array(count).fill(NaN);

// The samples of one sensor, oldest first; the newest replaces the oldest.
export class History {
  #times = new Float64Array(kKept);
  #values = new Float32Array(kKept * kFields);
  #next = 0;
  size = 0;

  add(time, sensor) {
    this.#times[this.#next] = time;
    this.#values.set([...numbers(sensor.position, 3), ...numbers(sensor.quaternion, 4), ...numbers(sensor.angles, 3)],
      this.#next * kFields);
    this.#next = (this.#next + 1) % kKept;
    this.size = Math.min(this.size + 1, kKept);
  }

  #place(index) { return (this.#next - this.size + index + kKept) % kKept; }

  time(index) { return this.#times[this.#place(index)]; }

  sample(index) {
    const from = this.#place(index) * kFields;
    const values = this.#values.subarray(from, from + kFields);
    return {
      time: this.time(index),
      position: [values[0], values[1], values[2]],
      quaternion: [values[3], values[4], values[5], values[6]],
      angles: [values[7], values[8], values[9]],
    };
  }

  // The index of the newest sample that is not later than `time`; -1: none.
  indexAt(time) {
    let low = 0;
    let high = this.size;
    while (low < high) {
      const middle = (low + high) >> 1;
      if (this.time(middle) <= time) low = middle + 1;
      else high = middle;
    }
    return low - 1;
  }

  // The newest sample that is not later than `time`, if there is one.
  at(time) {
    const index = this.indexAt(time);
    return index < 0 ? null : this.sample(index);
  }

  // The samples later than `from` and up to `to`; evenly thinned if they are more than `most`.
  between(from, to, most = Infinity) {
    const samples = [];
    const first = this.indexAt(from) + 1;
    const last = this.indexAt(to);
    const step = Math.max(1, Math.ceil((last - first) / most));
    for (let i = first; i <= last; i += step) samples.push(this.sample(i));
    return samples;
  }

  copy() {
    const copy = new History();
    copy.#times.set(this.#times);
    copy.#values.set(this.#values);
    copy.#next = this.#next;
    copy.size = this.size;
    return copy;
  }
}

// Noise of the position in metres, once per period, in one pass: how far each sample lies from the
// straight line between its neighbours. A steady motion therefore adds nothing.
class Jitter {
  #last = [];
  #sum = 0;
  #count = 0;
  #begun = 0;
  values = [];  // the last 60 periods

  add({ time, position }) {
    if (Number.isNaN(position[0])) return;
    this.#last.push({ time, position });
    if (this.#last.length > 3) this.#last.shift();
    const [a, b, c] = this.#last;
    if (c) {
      const v = (b.time - a.time) / (c.time - a.time);
      const u = 1 - v;
      let square = 0;
      for (let i = 0; i < 3; ++i) square += (b.position[i] - u * a.position[i] - v * c.position[i]) ** 2;
      this.#sum += square / (1 + u * u + v * v);
      ++this.#count;
    }
    if (time - this.#begun < kPeriod) return;
    if (this.#count > 0) this.values.push(Math.sqrt(this.#sum / this.#count));
    if (this.values.length > 60) this.values.shift();
    [this.#sum, this.#count, this.#begun] = [0, 0, time];
  }

  // Mean of the last five seconds; NaN: not known yet.
  get newest() {
    const last = this.values.slice(-10);
    return last.length ? Math.sqrt(last.reduce((sum, value) => sum + value * value, 0) / last.length) : NaN;
  }
}

export class Sensor {
  history = new History();
  jitter = new Jitter();
  record = 0;  // number of the newest one
  frame = 0;
  share = 1;  // of the frames that had news of this sensor
  newest = null;
  code = null;
  buttons = null;

  constructor(number) {
    this.number = number;
    this.name = `Sensor ${number}`;
  }

  // False: this record was there already. A frame whose sensors come one by one is not complete
  // before the next one.
  take(message, time, frame) {
    const fresh = message.record !== this.record && !(this.newest && time <= this.newest.time);
    if (fresh || frame - this.frame > 1) this.share += (fresh - this.share) / 30;
    if (!fresh) return false;
    this.record = message.record;
    this.frame = message.frame;
    this.history.add(time, message);
    this.newest = this.history.sample(this.history.size - 1);
    this.jitter.add(this.newest);
    this.code = message.code;
    this.buttons = message.buttons;
    return true;
  }
}

export class Tracker {
  status = { state: 'unknown', stateText: '' };
  sensors = new Map();
  log = [];
  logOf = '';  // the instance whose log it is
  frame = null;
  heard = 0;  // when the newest pose was taken
  published = 0;  // when it was published
  #zero = 0;  // ms from the tracker's clock to 1970

  constructor(slot) { this.slot = slot; }

  get name() { return this.status.name || `Tracker ${this.slot}`; }

  takeStatus({ tracker, now, utc }) {
    const step = (utc - now) * 1000 - this.#zero;
    this.#zero += step;
    // The dates before a step of the clock are of no use either.
    if (Math.abs(step) > 1000 || (tracker.instance && tracker.instance !== this.status.instance)) {
      this.sensors.clear();
      this.heard = 0;
    }
    // A slot that was left keeps the words about the tracker that was there.
    this.status = tracker.instance ? tracker : { ...this.status, ...tracker };
    for (const each of tracker.sensors ?? []) Object.assign(this.sensor(each.sensor), each, { name: each.name || `Sensor ${each.sensor}` });
  }

  takeLog({ instance, lines }) {
    const log = instance === this.logOf ? this.log : [];
    const last = log.at(-1)?.number ?? 0;
    this.log = log.concat(lines.filter(({ number }) => number > last)).slice(-64);  // a new connection repeats them
    this.logOf = instance;
  }

  // True: there was news.
  takeFrame(message) {
    let fresh = false;
    for (const sensor of message.sensors) {
      if (!this.sensor(sensor.sensor).take(sensor, this.utc(sensor.sampleTime), message.frame)) continue;
      fresh = true;
      this.heard = Math.max(this.heard, this.utc(sensor.sampleTime));
      this.published = this.utc(sensor.publishTime);
    }
    this.frame = message.frame;
    this.status.rate = message.rate;
    return fresh;
  }

  sensor(number) {
    if (!this.sensors.has(number)) {
      this.sensors.set(number, new Sensor(number));
      this.sensors = new Map([...this.sensors].sort((a, b) => a[0] - b[0]));
    }
    return this.sensors.get(number);
  }

  utc(time) { return time == null ? NaN : time * 1000 + this.#zero; }

  get stateSince() { return this.utc(this.status.stateSince); }

  // Since when no pose came, if that is longer than the tracker usually takes; 0: it is live.
  silentSince(now) {
    if (!this.heard) return 0;
    const usual = 6000 / (this.status.nominalRate || this.status.rate || 10);
    return now - this.heard > Math.max(500, usual) ? this.heard : 0;
  }
}
