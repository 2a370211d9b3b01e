// The connection to the server: a look at the list of trackers every second, and a WebSocket for
// each slot that has one. A lost server is asked again by itself, at growing intervals.
import { Tracker } from './model.js';

const kLookEvery = 1000;  // ms
const kPatience = 3500;  // ms; a server says something every second
const kFirstRetry = 250;
const kLastRetry = 5000;

export class Feed {
  trackers = new Map();  // by slot
  link = { state: 'connecting', since: Date.now(), retryAt: 0, reason: '' };
  version = '';
  #sockets = new Map();
  #retry = kFirstRetry;
  #timer = 0;
  #paused = false;
  #looking = false;
  #offset = Infinity;  // ms by which this clock is ahead of the server's, and the quickest answer
  #changed;

  // `changed(what, slot)`: 'link', 'trackers', 'status', 'log' or 'frame'.
  constructor(changed) { this.#changed = changed; }

  // The server's time, as well as it is known.
  now() { return Date.now() - (Number.isFinite(this.#offset) ? this.#offset : 0); }

  start(paused) {
    this.#paused = paused;
    if (!paused) this.look();
  }

  // A page that cannot be seen asks the server for nothing.
  pause() {
    this.#paused = true;
    clearTimeout(this.#timer);
    for (const socket of this.#sockets.values()) if (socket.readyState === 1) socket.send('pause');
  }

  resume() {
    this.#paused = false;
    for (const socket of this.#sockets.values()) {
      socket.heard = Date.now();
      if (socket.readyState === 1) socket.send('resume');
    }
    this.look();
  }

  async look() {
    if (this.#looking) return;
    this.#looking = true;
    clearTimeout(this.#timer);
    try {
      const answer = await fetch('api/trackers', { signal: AbortSignal.timeout(kPatience), cache: 'no-store' });
      if (!answer.ok) throw new Error(answer.status === 401 ? 'Open the address that kinetrel-view printed.' : `Status ${answer.status}.`);
      this.#takeList(await answer.json());
    } catch (error) {
      this.#lose(error.constructor === Error ? error.message : 'It does not answer.');
    }
    this.#looking = false;
    if (this.#paused) return;
    this.#timer = setTimeout(() => this.look(), Math.max(0, this.link.retryAt - Date.now()) || kLookEvery);
  }

  #takeList(list) {
    this.version = list.version;
    this.#clock(list.utc);
    this.#retry = kFirstRetry;
    if (this.link.state !== 'open') this.#setLink({ state: 'open', since: Date.now(), retryAt: 0, reason: '' });
    const there = new Set();
    let fresh = false;
    for (const status of list.trackers) {
      there.add(status.slot);
      if (!this.trackers.has(status.slot)) {
        this.trackers.set(status.slot, new Tracker(status.slot));
        fresh = true;
      }
      this.trackers.get(status.slot).takeStatus({ ...list, tracker: status });
      this.#connect(status.slot);
    }
    // A tracker that ended stays on the page as long as it has something to show.
    for (const [slot, tracker] of this.trackers) {
      if (there.has(slot)) continue;
      if (tracker.heard) {
        this.#connect(slot);
        continue;
      }
      this.trackers.delete(slot);
      this.#sockets.get(slot)?.close();
      fresh = true;
    }
    this.trackers = new Map([...this.trackers].sort((a, b) => a[0] - b[0]));
    this.#changed(fresh ? 'trackers' : 'status');
  }

  #connect(slot) {
    const old = this.#sockets.get(slot);
    if (old && Date.now() - old.heard < kPatience) return;
    old?.close();
    const address = new URL(`api/trackers/${slot}/frames`, location.href);
    address.protocol = address.protocol.replace('http', 'ws');
    const socket = new WebSocket(address);
    socket.heard = Date.now();
    this.#sockets.set(slot, socket);
    socket.onopen = () => { if (this.#paused) socket.send('pause'); };
    socket.onmessage = (event) => {
      socket.heard = Date.now();
      this.#take(slot, JSON.parse(event.data));
    };
    socket.onclose = () => {
      if (this.#sockets.get(slot) !== socket) return;
      this.#sockets.delete(slot);
      if (!this.#paused && this.link.state === 'open') this.look();  // is it the server or this slot?
    };
  }

  #take(slot, message) {
    const tracker = this.trackers.get(slot);
    if (!tracker) return;
    if (message.type === 'status') {
      this.#clock(message.utc);
      tracker.takeStatus(message);
    } else if (message.type === 'log') {
      tracker.takeLog(message);
    } else if (message.type === 'frame') {
      if (!tracker.takeFrame(message)) return;
    }
    this.#changed(message.type, slot);
  }

  // The quickest of all answers counts; a drift of the clocks is followed, and so is a step.
  #clock(utc) {
    const ahead = Date.now() - utc * 1000;
    const more = ahead - this.#offset;
    this.#offset = more < 0 || more > 1000 ? ahead : this.#offset + 0.01 * more;
  }

  #lose(reason) {
    const since = this.link.state === 'lost' ? this.link.since : Date.now();
    for (const socket of this.#sockets.values()) socket.close();
    this.#sockets.clear();
    for (const { status } of this.trackers.values()) Object.assign(status, { state: 'unknown', stateText: '', stateSince: null });
    this.#setLink({ state: 'lost', since, retryAt: Date.now() + this.#retry, reason });
    this.#retry = Math.min(this.#retry * 2, kLastRetry);
  }

  #setLink(link) {
    this.link = link;
    this.#changed('link');
  }
}
