// Draws the view by WebGL 2: lines and triangles alike are instances of one strip of four corners.
import { add, axesOf, cross, dot, length, scale, subtract } from './maths.js';

// A line has a width in pixels of the page; a triangle, with width 0, has a third corner.
const kVertex = `#version 300 es
uniform mat4 matrix;
uniform vec2 size;
uniform vec4 fade;
layout(location=0) in vec3 from;
layout(location=1) in vec3 to;
layout(location=2) in vec3 third;
layout(location=3) in vec4 colour;
layout(location=4) in float width;
out vec4 tint;
void main() {
  tint = colour;
  if (width == 0.0) {
    gl_Position = matrix * vec4(gl_VertexID == 0 ? from : gl_VertexID == 1 ? to : third, 1);
    return;
  }
  vec4 a = matrix * vec4(from, 1), b = matrix * vec4(to, 1);
  if (a.w < 1e-4) a = mix(b, a, (b.w - 1e-4) / (b.w - a.w));
  if (b.w < 1e-4) b = mix(a, b, (a.w - 1e-4) / (a.w - b.w));
  vec2 along = (b.xy / b.w - a.xy / a.w) * size;
  vec2 across = length(along) < 1e-6 ? vec2(0) : normalize(vec2(-along.y, along.x));
  bool end = gl_VertexID > 1;
  gl_Position = end ? b : a;
  gl_Position.xy += across * (gl_VertexID % 2 == 0 ? width : -width) / size * gl_Position.w;
  if (fade.w > 0.0) tint.a *= 1.0 - smoothstep(0.3, 1.0, distance(end ? to : from, fade.xyz) / fade.w);
}`;
const kFragment = `#version 300 es
precision mediump float;
in vec4 tint;
out vec4 colour;
void main() { colour = vec4(tint.rgb * tint.a, tint.a); }`;
const kFields = [3, 3, 3, 4, 1];
const kFloats = 14;

const kLight = [0.34, 0.25, -0.9];  // from the ceiling
// Of a box, in halves of its length: half width and half height of its back and its front.
const kSensor = [[0.62, 0.3], [0.2, 0.16]];  // narrow in front, which shows where x points
const kCube = [[1, 1], [1, 1]];
const kSigns = [[-1, -1], [1, -1], [1, 1], [-1, 1]];
const kFaces = [[3, 2, 1, 0], [4, 5, 6, 7], [0, 1, 5, 4], [2, 3, 7, 6], [1, 2, 6, 5], [3, 0, 4, 7]];

export class Scene {
  #gl;
  #program;
  #shapes = [];

  // Throws if there is no WebGL 2. `restored`: the picture was lost and must be drawn anew.
  constructor(canvas, restored) {
    this.canvas = canvas;
    this.#gl = canvas.getContext('webgl2', { alpha: false });
    this.#prepare();
    canvas.addEventListener('webglcontextlost', (event) => event.preventDefault());
    canvas.addEventListener('webglcontextrestored', () => {
      this.#prepare();
      restored();
    });
  }

  #prepare() {
    const gl = this.#gl;
    const program = gl.createProgram();
    for (const [kind, text] of [[gl.VERTEX_SHADER, kVertex], [gl.FRAGMENT_SHADER, kFragment]]) {
      const shader = gl.createShader(kind);
      gl.shaderSource(shader, text);
      gl.compileShader(shader);
      gl.attachShader(program, shader);
    }
    gl.linkProgram(program);
    gl.useProgram(program);
    gl.bindBuffer(gl.ARRAY_BUFFER, gl.createBuffer());
    let offset = 0;
    kFields.forEach((count, i) => {
      gl.enableVertexAttribArray(i);
      gl.vertexAttribPointer(i, count, gl.FLOAT, false, 4 * kFloats, offset);
      gl.vertexAttribDivisor(i, 1);
      offset += 4 * count;
    });
    gl.enable(gl.DEPTH_TEST);
    gl.enable(gl.BLEND);
    gl.blendFunc(gl.ONE, gl.ONE_MINUS_SRC_ALPHA);
    this.#program = program;
  }

  begin(camera, background) {
    const gl = this.#gl;
    const { canvas } = this;
    const ratio = Math.min(devicePixelRatio, 2);
    const [width, height] = [canvas.clientWidth, canvas.clientHeight].map((size) => Math.max(1, Math.round(size * ratio)));
    if (canvas.width !== width || canvas.height !== height) Object.assign(canvas, { width, height });
    camera.aspect = width / height;
    const uniform = (name) => gl.getUniformLocation(this.#program, name);
    gl.uniformMatrix4fv(uniform('matrix'), false, camera.matrix());
    gl.uniform2f(uniform('size'), width / ratio, height / ratio);
    gl.viewport(0, 0, width, height);
    gl.clearColor(...background);
    gl.depthMask(true);
    gl.clear(gl.COLOR_BUFFER_BIT | gl.DEPTH_BUFFER_BIT);
  }

  line(from, to, colour, width = 1) { this.#shapes.push(...from, ...to, 0, 0, 0, ...colour, width); }

  // It fades towards its beginning.
  path(points, [r, g, b]) {
    for (let i = 1; i < points.length; ++i) this.line(points[i - 1], points[i], [r, g, b, i / points.length], 1.5);
  }

  // Its axes are `reach` long.
  box(position, quaternion, size, colour, isSensor, axisColours, reach) {
    const axes = axesOf(quaternion);
    const corners = (isSensor ? kSensor : kCube).flatMap(([wide, tall], front) => kSigns.map(([y, z]) =>
      [front * 2 - 1, y * wide, z * tall].reduce((sum, value, i) => add(sum, scale(axes[i], value * size / 2)), position)));
    for (const face of kFaces) {
      const [a, b, c, d] = face.map((i) => corners[i]);
      const normal = cross(subtract(b, a), subtract(d, a));
      const light = 0.72 + 0.28 * dot(normal, kLight) / length(normal);
      const tint = [...scale(colour, light), 1];
      this.#shapes.push(...a, ...b, ...c, ...tint, 0, ...a, ...c, ...d, ...tint, 0);
    }
    axes.forEach((axis, i) => this.line(position, add(position, scale(axis, reach)), axisColours[i], 2));
  }

  // `fade`: where, and at which distance, the lines have faded away; they lie behind all that follows.
  flush(fade = [0, 0, 0, 0]) {
    const gl = this.#gl;
    gl.depthMask(fade[3] === 0);
    gl.uniform4f(gl.getUniformLocation(this.#program, 'fade'), ...fade);
    gl.bufferData(gl.ARRAY_BUFFER, new Float32Array(this.#shapes), gl.STREAM_DRAW);
    gl.drawArraysInstanced(gl.TRIANGLE_STRIP, 0, 4, this.#shapes.length / kFloats);
    this.#shapes = [];
  }
}
