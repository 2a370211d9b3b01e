// Vectors, quaternions (w, x, y, z) and matrices (by columns) as plain arrays.

export const add = (a, b) => [a[0] + b[0], a[1] + b[1], a[2] + b[2]];
export const subtract = (a, b) => [a[0] - b[0], a[1] - b[1], a[2] - b[2]];
export const scale = (a, by) => [a[0] * by, a[1] * by, a[2] * by];
export const dot = (a, b) => a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
export const cross = (a, b) => [
  a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]];
export const length = (a) => Math.hypot(...a);
export const distance = (a, b) => length(subtract(a, b));

// The sensor's own x, y and z axes in the tracker's frame.
export function axesOf([w, x, y, z]) {
  return [
    [1 - 2 * (y * y + z * z), 2 * (x * y + w * z), 2 * (x * z - w * y)],
    [2 * (x * y - w * z), 1 - 2 * (x * x + z * z), 2 * (y * z + w * x)],
    [2 * (x * z + w * y), 2 * (y * z - w * x), 1 - 2 * (x * x + y * y)]];
}

// The angle in radians by which one orientation must turn to become the other: 0 to pi. A quaternion
// and its negative are the same.
export function angleBetween(p, q) {
  const chord = (sign) => Math.hypot(...p.map((value, i) => value - sign * q[i]));
  return 4 * Math.asin(Math.min(1, chord(1) / 2, chord(-1) / 2));
}

// Where a point lands: x and y from -1 to 1 across the picture, w above 0 in front of the eye.
export function project(matrix, [x, y, z]) {
  const [right, up, , w] = [0, 1, 2, 3].map((i) => matrix[i] * x + matrix[4 + i] * y + matrix[8 + i] * z + matrix[12 + i]);
  return { x: right / w, y: up / w, w };
}

// Least step of 1, 2 or 5 times a power of ten that is at least `value`.
export function roundStep(value) {
  const power = 10 ** Math.floor(Math.log10(value));
  return [1, 2, 5, 10].find((n) => n * power >= value * 0.999) * power;
}
