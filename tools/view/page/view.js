// The picture: what it shows, its labels, and how hands and keys move it.
import { Camera } from './camera.js';
import { roundStep } from './maths.js';
import { $, colourOf, make, setPressed, setText } from './panels.js';
import { kLengths } from './text.js';

const kTrail = 5000;  // ms
const kTrailPoints = 150;
const kStraight = [1, 0, 0, 0];
const kAxes = ['x forward', 'y right', 'z down'];

const rgba = (hex, alpha = 1) => [...[1, 3, 5].map((i) => parseInt(hex.trim().slice(i, i + 2), 16) / 255), alpha];
const fade = (colour, alpha) => [...colour.slice(0, 3), alpha];
const along = (axis, metres) => [0, 1, 2].map((i) => (i === axis ? metres : 0));

export class View {
  trails = true;
  hemisphere = '';  // axis and sign: '2,-1' is up
  #cameras = new Map();  // one for each slot
  #labels = new Map();
  #scene;
  #colours;

  // `scene`: null where there is no WebGL 2. `changed`: called when the picture must be drawn anew.
  constructor(scene, changed) {
    this.#scene = scene;
    this.changed = changed;
    $('no-picture').hidden = Boolean(scene);
    $('canvas').hidden = !scene;
    this.choose(0);
    this.#listen($('canvas'));
    new ResizeObserver(() => this.#moved()).observe($('picture'));
  }

  readColours() {
    const style = getComputedStyle(document.documentElement);
    const read = (name, alpha) => rgba(style.getPropertyValue(`--${name}`), alpha);
    this.#colours = {
      picture: read('picture'), grid: read('grid', 0.6), quiet: read('quiet'),
      axes: ['axis-x', 'axis-y', 'axis-z'].map((name) => read(name)),
    };
  }

  choose(slot) {
    if (!this.#cameras.has(slot)) this.#cameras.set(slot, new Camera());
    this.camera = this.#cameras.get(slot);
    this.#moved();
  }

  look(name) {
    this.camera.look(name);
    this.#moved();
  }

  fit() {
    this.camera.follows = true;
    this.#fitted = false;
    this.changed();
  }

  setTrails(on) {
    this.trails = on;
    setPressed($('trails'), on);
    this.changed();
  }

  #fitted = false;
  #moved() {
    for (const button of $('views').children) setPressed(button, button.dataset.view === this.camera.view);
    this.#fitted = false;
    this.changed();
  }

  // `sensors`: { number, name, pose, trail(ms, points) }, of each sensor with a position.
  draw(sensors, lengthUnit) {
    if (!this.#scene) return;
    const { camera } = this;
    const scene = this.#scene;
    scene.begin(camera, this.#colours.picture);
    if (camera.follows && !(this.#fitted && sensors.every(({ pose }) => camera.shows(pose.position)))) {
      camera.fit([[0, 0, 0], ...sensors.flatMap(({ trail }) => trail(60000, 60))]);
      this.#fitted = sensors.length > 0;
      scene.begin(camera, this.#colours.picture);
    }
    const tall = camera.height;
    const step = roundStep(tall / 12);
    this.#grid(step, tall);
    scene.box([0, 0, 0], kStraight, tall * 0.02, this.#colours.quiet, false, this.#colours.axes, tall * 0.16);
    if (this.hemisphere) this.#dome(tall * 0.45, ...this.hemisphere.split(',').map(Number));
    for (const { number, pose, trail } of sensors) {
      const colour = rgba(colourOf(number));
      const [x, y] = pose.position;
      scene.line(pose.position, [x, y, 0], fade(colour, 0.5));
      if (this.trails) scene.path(trail(kTrail, kTrailPoints), colour);
      const turned = Number.isNaN(pose.quaternion[0]) ? kStraight : pose.quaternion;
      scene.box(pose.position, turned, tall * 0.055, colour, true, this.#colours.axes, tall * 0.063);
    }
    scene.flush();
    this.#writeLabels(sensors, tall);
    setText($('scale'), `grid ${Number((step * kLengths[lengthUnit].perMetre).toPrecision(3))} ${lengthUnit}`);
  }

  // At the height of the transmitter, since the tracker does not know the floor.
  #grid(step, tall) {
    const [x, y] = this.camera.target.map((value) => Math.round(value / step) * step);
    const lines = Math.ceil(tall * 1.6 / step);
    const reach = lines * step;
    for (let i = -lines; i <= lines; ++i) {
      // In pieces, since a line fades between its ends.
      for (let j = -4; j < 4; ++j) {
        const [a, b, across] = [j / 4 * reach, (j + 1) / 4 * reach, i * step];
        this.#scene.line([x + across, y + a, 0], [x + across, y + b, 0], this.#colours.grid, 0.5);
        this.#scene.line([x + a, y + across, 0], [x + b, y + across, 0], this.#colours.grid, 0.5);
      }
    }
    this.#scene.flush([x, y, 0, reach]);
  }

  // Three rings, and three half circles over the zenith.
  #dome(radius, axis, sign) {
    const colour = fade(this.#colours.axes[axis], 0.6);
    const curve = (step, pointAt) => {
      const places = [...Array(37).keys()].map((i) => pointAt(i * step)).map(([up, across, aside]) => {
        const place = along(axis, sign * radius * up);
        [place[(axis + 1) % 3], place[(axis + 2) % 3]] = [across * radius, aside * radius];
        return place;
      });
      for (let i = 1; i < 37; ++i) this.#scene.line(places[i - 1], places[i], colour, 0.75);
    };
    for (let i = 0; i < 3; ++i) {
      const [c, s] = [Math.cos(i * Math.PI / 6), Math.sin(i * Math.PI / 6)];
      const [u, v] = [Math.cos(i * Math.PI / 3), Math.sin(i * Math.PI / 3)];
      curve(Math.PI / 18, (turn) => [s, c * Math.cos(turn), c * Math.sin(turn)]);
      curve(Math.PI / 36, (turn) => [Math.sin(turn), u * Math.cos(turn), v * Math.cos(turn)]);
    }
  }

  #writeLabels(sensors, tall) {
    const wanted = new Map(kAxes.map((text, i) => [text, { text, place: along(i, tall * 0.18) }]));
    wanted.set('origin', { text: 'transmitter', place: [0, 0, 0], below: 14 });
    for (const { number, name, pose } of sensors) {
      wanted.set(number, { text: `${number} ${name}`, className: 'sensor', place: pose.position, below: -40 });
    }
    for (const [key, label] of this.#labels) if (!wanted.has(key)) { label.remove(); this.#labels.delete(key); }
    const { clientWidth: width, clientHeight: height } = $('picture');
    for (const [key, { text, className = '', place, below = -8 }] of wanted) {
      if (!this.#labels.has(key)) this.#labels.set(key, $('labels').appendChild(make('span', { className })));
      const label = this.#labels.get(key);
      setText(label, text);
      const at = this.camera.pixel(place, width, height);
      label.hidden = !at;
      if (at) label.style.transform = `translate(${at.x.toFixed(1)}px, ${(at.y + below).toFixed(1)}px) translateX(-50%)`;
    }
  }

  // ---- Hands and keys ----

  #listen(canvas) {
    const pointers = new Map();
    let spread = 0;  // px between two fingers
    const listeners = {
      contextmenu: (event) => event.preventDefault(),
      pointerdown: (event) => {
        canvas.setPointerCapture(event.pointerId);
        pointers.set(event.pointerId, event);
      },
      lostpointercapture: (event) => {
        pointers.delete(event.pointerId);
        spread = 0;
      },
      pointermove: (event) => {
        const before = pointers.get(event.pointerId);
        if (!before) return;
        pointers.set(event.pointerId, event);
        const [right, down] = [event.clientX - before.clientX, event.clientY - before.clientY];
        const tall = canvas.clientHeight;
        if (pointers.size > 1) {
          const [a, b] = [...pointers.values()];
          const now = Math.hypot(a.clientX - b.clientX, a.clientY - b.clientY);
          if (spread && now) this.camera.zoom(spread / now);
          spread = now;
        } else if (event.shiftKey || event.buttons & 6) {
          this.camera.pan(right / tall, -down / tall);
        } else {
          this.camera.orbit(right * 0.008, down * 0.008);
        }
        this.#moved();
      },
      wheel: (event) => {
        event.preventDefault();
        this.camera.zoom(Math.exp(event.deltaY * (event.deltaMode ? 0.04 : 0.0015)));
        this.#moved();
      },
      keydown: (event) => {
        if (event.ctrlKey || event.metaKey || event.altKey || !this.#key(event)) return;
        event.preventDefault();
        this.#moved();
      },
    };
    for (const [type, listener] of Object.entries(listeners)) canvas.addEventListener(type, listener, { passive: false });
  }

  #key({ key, shiftKey }) {
    const arrow = { ArrowLeft: [-1, 0], ArrowRight: [1, 0], ArrowUp: [0, -1], ArrowDown: [0, 1] }[key];
    if (arrow && shiftKey) this.camera.pan(arrow[0] * 0.05, -arrow[1] * 0.05);
    else if (arrow) this.camera.orbit(arrow[0] * 0.1, arrow[1] * 0.1);
    else if (key === '+' || key === '=') this.camera.zoom(0.85);
    else if (key === '-') this.camera.zoom(1 / 0.85);
    else if ('1234'.includes(key)) this.camera.look(['orbit', 'front', 'side', 'top'][key - 1]);
    else if (key === 'f') this.fit();
    else if (key === 't') this.setTrails(!this.trails);
    else return this.onkey?.(key) ?? false;
    return true;
  }
}
