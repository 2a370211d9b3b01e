// The eye of the 3-D view. It looks at the tracker's frame: x forward, y right, z down.
import { add, cross, dot, project, scale } from './maths.js';

const kHalfView = Math.tan(0.35);  // of 0.7 rad from bottom to top
const kSteep = Math.PI / 2;

// `yaw` turns the line of sight about z: at 0 it looks forward along x. A positive `pitch` looks
// down. Views along an axis have no perspective, so that lengths can be compared.
const kViews = {
  orbit: { yaw: 0.6, pitch: 0.55, flat: false },
  front: { yaw: Math.PI, pitch: 0, flat: true },
  side: { yaw: -kSteep, pitch: 0, flat: true },
  top: { yaw: 0, pitch: kSteep, flat: true },
};

export class Camera {
  target = [0, 0, 0];
  distance = 3;  // m
  aspect = 1;
  follows = true;  // until the user moves it

  constructor() { this.look('orbit'); }

  look(view) { Object.assign(this, kViews[view], { view, follows: true }); }

  orbit(yaw, pitch) {
    this.yaw += yaw;
    this.pitch = Math.max(-kSteep, Math.min(kSteep, this.pitch + pitch));
    Object.assign(this, { flat: false, view: 'orbit', follows: false });
  }

  // By fractions of the picture's height.
  pan(right, up) {
    const axes = this.axes();
    const by = add(scale(axes.right, -right), scale(axes.up, -up));
    this.target = add(this.target, scale(by, this.height));
    this.follows = false;
  }

  zoom(factor) {
    this.distance = Math.max(0.01, Math.min(1000, this.distance * factor));
    this.follows = false;
  }

  // Brings the points into the picture without turning.
  fit(points) {
    const axes = Object.values(this.axes());
    const middle = axes.map((axis) => {
      const along = points.map((point) => dot(point, axis));
      return (Math.min(...along) + Math.max(...along)) / 2;
    });
    this.target = axes.reduce((sum, axis, i) => add(sum, scale(axis, middle[i])), [0, 0, 0]);
    const needed = points.map((point) => {
      const [deep, right, up] = axes.map((axis, i) => dot(point, axis) - middle[i]);
      const aside = Math.max(Math.abs(up), Math.abs(right) / this.aspect);
      return 1.5 * aside / kHalfView - (this.flat ? 0 : deep);
    });
    this.distance = Math.max(0.3, ...needed);
  }

  shows(point) {
    const { x, y, w } = project(this.matrix(), point);
    return w > 0 && Math.abs(x) < 0.85 && Math.abs(y) < 0.85;
  }

  // Of the picture, in metres at the target.
  get height() { return 2 * this.distance * kHalfView; }

  axes() {
    const [c, s] = [Math.cos(this.yaw), Math.sin(this.yaw)];
    const forward = [Math.cos(this.pitch) * c, Math.cos(this.pitch) * s, Math.sin(this.pitch)];
    const right = [-s, c, 0];
    return { forward, right, up: cross(right, forward) };
  }

  // From metres in the tracker's frame to the picture.
  matrix() {
    const { forward, right, up } = this.axes();
    const { target, distance, aspect, flat } = this;
    const row = (axis, by, shift) => [...scale(axis, by), shift - by * dot(axis, target)];
    const zoom = 1 / (flat ? kHalfView * distance : kHalfView);
    const [near, far] = [distance / 100, distance * 100];
    const rows = [row(right, zoom / aspect, 0), row(up, zoom, 0), flat ? row(forward, 1 / far, 0)
      : row(forward, (far + near) / (far - near), (distance * (far + near) - 2 * far * near) / (far - near)),
      flat ? [0, 0, 0, 1] : row(forward, 1, distance)];
    return [0, 1, 2, 3].flatMap((column) => rows.map((one) => one[column]));
  }

  // The pixel at which a point is drawn in a picture of that size; nothing if it is behind the eye.
  pixel(point, width, height) {
    const { x, y, w } = project(this.matrix(), point);
    return w > 0 ? { x: (x + 1) / 2 * width, y: (1 - y) / 2 * height } : null;
  }
}
