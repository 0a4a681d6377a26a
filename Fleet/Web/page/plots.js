// What the live page draws: the way of the last minutes, and the acceleration.
const SVG = "http://www.w3.org/2000/svg";
const METRES_PER_DEGREE = 111_320;  // of latitude, on a sphere of the Earth's mean radius
const LEAST_METRES = 60;            // a vehicle that stands is no zigzag of its receiver's noise

function shape(name, attributes, text) {
  const made = document.createElementNS(SVG, name);
  for (const [key, value] of Object.entries(attributes)) made.setAttribute(key, value);
  if (text !== undefined) made.textContent = text;
  return made;
}

export function drawTrack(svg, fixes) {
  if (fixes.length === 0) return;
  const [width, height, edge] = [400, 240, 16];
  const last = fixes.at(-1);
  const shrink = Math.cos(last.latitude * Math.PI / 180);
  const points = fixes.map((fix) => [(fix.longitude - last.longitude) * shrink * METRES_PER_DEGREE, (last.latitude - fix.latitude) * METRES_PER_DEGREE]);
  const range = (axis) => [Math.min(...points.map((p) => p[axis])), Math.max(...points.map((p) => p[axis]))];
  const [[left, right], [top, bottom]] = [range(0), range(1)];
  const scale = Math.min((width - 2 * edge) / Math.max(right - left, LEAST_METRES), (height - 2 * edge) / Math.max(bottom - top, LEAST_METRES));
  const place = ([x, y]) => [(width / 2 + (x - (left + right) / 2) * scale).toFixed(1), (height / 2 + (y - (top + bottom) / 2) * scale).toFixed(1)];
  const [x, y] = place([0, 0]);
  const bar = 10 ** Math.floor(Math.log10((width / 3) / scale));
  svg.replaceChildren(
    shape("polyline", {class: "way", points: points.map((p) => place(p).join(",")).join(" ")}),
    shape("circle", {class: "here", cx: x, cy: y, r: 7}),
    shape("line", {class: "gridline", x1: 10, x2: 10 + bar * scale, y1: height - 8, y2: height - 8, "stroke-width": 3}),
    shape("text", {x: 10, y: height - 14}, bar >= 1000 ? `${bar / 1000} km` : `${bar} m`));
}

export function drawAcceleration(svg, samples, seconds) {
  if (samples.length === 0) return;
  const [width, height] = [400, 160];
  const end = samples.at(-1).t;
  const most = Math.max(0.5, ...samples.map(({g}) => Math.max(...g.map(Math.abs))));
  const toX = (t) => (width - (end - t) / seconds * width).toFixed(1);
  const toY = (g) => (height / 2 - g / most * (height / 2 - 12)).toFixed(1);
  const line = (g) => shape("line", {class: "gridline", x1: 0, x2: width, y1: toY(g), y2: toY(g)});
  const curve = (axis, name) => shape("polyline", {class: `curve ${name}`, points: samples.map(({t, g}) => `${toX(t)},${toY(g[axis])}`).join(" ")});
  svg.replaceChildren(line(0), line(most), line(-most), curve(0, "first"), curve(1, "second"), curve(2, "third"),
    shape("text", {x: 2, y: Number(toY(most)) + 10}, `${most.toFixed(1)} g`),
    shape("text", {x: 2, y: height - 2}, `${seconds} s ago`));
}
