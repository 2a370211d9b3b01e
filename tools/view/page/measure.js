// What a lab asks of samples: pure functions of lists of { time, position, quaternion }.
import { angleBetween, distance, subtract } from './maths.js';

const whole = (list) => list.every((value) => !Number.isNaN(value));

// Length of the way through all positions, in metres.
export function pathLength(samples) {
  const points = samples.map((sample) => sample.position).filter(whole);
  return points.slice(1).reduce((sum, point, i) => sum + distance(points[i], point), 0);
}

// { count, deviation, total, angle, moved }: standard deviations of x, y and z, of the
// position (the root of the sum of their squares), and of the orientation in radians, about the mean.
// `moved`: the samples follow each other too closely for noise, so the sensor was not at rest.
export function rest(samples) {
  const points = samples.map((sample) => sample.position).filter(whole);
  const count = points.length;
  if (count < 2) return { count, deviation: [NaN, NaN, NaN], total: NaN, angle: NaN, moved: false };
  const mean = [0, 1, 2].map((i) => points.reduce((sum, point) => sum + point[i], 0) / count);
  const squares = [0, 1, 2].map((i) => points.reduce((sum, point) => sum + (point[i] - mean[i]) ** 2, 0));
  const total = squares[0] + squares[1] + squares[2];
  let steps = 0;
  for (let i = 1; i < count; ++i) steps += distance(points[i], points[i - 1]) ** 2;
  return {
    count,
    deviation: squares.map((sum) => Math.sqrt(sum / (count - 1))),
    total: Math.sqrt(total / (count - 1)),
    angle: angleDeviation(samples.map((sample) => sample.quaternion).filter(whole)),
    // Of white noise the steps are twice the variance; of a filtered tracker, less.
    moved: total / count > 1e-10 && steps < 0.1 * total,
  };
}

function angleDeviation(quaternions) {
  if (quaternions.length < 2) return NaN;
  const first = quaternions[0];
  const sum = [0, 0, 0, 0];
  for (const q of quaternions) {
    const sign = q.reduce((product, value, i) => product + value * first[i], 0) < 0 ? -1 : 1;
    q.forEach((value, i) => { sum[i] += sign * value; });
  }
  const size = Math.hypot(...sum);
  const mean = sum.map((value) => value / size);
  const square = quaternions.reduce((total, q) => total + angleBetween(mean, q) ** 2, 0);
  return Math.sqrt(square / (quaternions.length - 1));
}

// From one sensor to another: { distance, step, angle }.
export function between(a, b) {
  return {
    distance: distance(a.position, b.position),
    step: subtract(b.position, a.position),
    angle: angleBetween(a.quaternion, b.quaternion),
  };
}
