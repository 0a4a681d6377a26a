// The measurements as plots along the time line.

function niceStep(span, count) {
  const raw = Math.max(span, 1e-9) / count;
  const power = 10 ** Math.floor(Math.log10(raw));
  return power * [1, 2, 5, 10].find((factor) => factor * power >= raw);
}
function ticks(low, high, count) {
  const step = niceStep(high - low, count);
  const list = [];
  for (let i = Math.ceil(low / step - 1e-9); i * step <= high + step * 1e-6; ++i) list.push(i * step);
  return { list, digits: Math.max(0, -Math.floor(Math.log10(step) + 1e-9)) };
}
const formatTick = (value, digits) => value.toFixed(digits).replace(/^-(0(\.0+)?)$/, "$1").replace("-", "−");

// Position of the last record at or before `seconds`, -1 before the first.
function indexAt(points, seconds) {
  let low = 0;
  let high = points.length;
  while (low < high) {
    const middle = (low + high) >> 1;
    if (points[middle][0] <= seconds + 1e-6) low = middle + 1;
    else high = middle;
  }
  return low - 1;
}
// As the curve has it; null where there is none.
function valueAt(points, seconds) {
  const index = indexAt(points, seconds);
  if (index < 0) return null;
  const [[start, value], next] = [points[index], points[index + 1]];
  if (!next) return seconds - start < 1 ? value : null;
  if (value === null || next[1] === null) return value;
  return value + (next[1] - value) * (seconds - start) / (next[0] - start);
}

// A line is broken where a value is missing.
function runsOf(points) {
  const runs = [[]];
  for (const point of points) {
    if (point[1] === null) runs.push([]);
    else runs[runs.length - 1].push(point);
  }
  return runs.filter((run) => run.length > 0);
}

function drawAxes(svg, box, low, high, x, y) {
  const across = ticks(first, last, Math.max(4, Math.floor((box.right - box.left) / 70)));
  const up = ticks(low, high, 4);
  for (const value of up.list) {
    make(svg, "line", { class: "gridline", x1: box.left, x2: box.right, y1: y(value), y2: y(value) });
    make(svg, "text", { x: box.left - 6, y: y(value) + 4, "text-anchor": "end" }, formatTick(value, up.digits));
  }
  for (const value of across.list) {
    make(svg, "line", { class: "gridline", x1: x(value), x2: x(value), y1: box.top, y2: box.bottom });
    make(svg, "text", { x: x(value), y: box.bottom + 15, "text-anchor": "middle" },
      formatTick(value, across.digits) + " s");
  }
  if (first <= 0 && last >= 0) make(svg, "line", { class: "zero", x1: x(0), x2: x(0), y1: box.top, y2: box.bottom });
}

function drawPeak(svg, peak, x, y) {
  make(svg, "circle", { class: "peak", cx: x(peak.seconds), cy: y(peak.value), r: 5 });
}

function drawCurves(svg, series, x, y) {
  for (const { points, color } of series) {
    for (const run of runsOf(points)) {
      const style = `--of: var(--${color})`;
      if (run.length === 1) make(svg, "circle", { class: "dot", cx: x(run[0][0]), cy: y(run[0][1]), r: 2.5, style });
      make(svg, "polyline", { class: "curve", style,
        points: run.map(([seconds, value]) => `${x(seconds).toFixed(1)},${y(value).toFixed(1)}`).join(" ") });
    }
  }
}

function addDragging(svg, toSeconds) {
  svg.addEventListener("pointerdown", (pointer) => {
    svg.setPointerCapture(pointer.pointerId);
    seek(toSeconds(pointer));
  });
  svg.addEventListener("pointermove", (pointer) => {
    if (svg.hasPointerCapture(pointer.pointerId)) seek(toSeconds(pointer));
  });
}

function describeGap(panel, source, name) {
  if (source.problem) make(panel, "p", { class: "problem" }, `Damaged: ${source.problem}.`);
  else if (source.records.length === 0) make(panel, "p", { class: "missing" }, `This event has no ${name}.`);
}

function addKeys(head, series, unit) {
  for (const { label, points, color, digits } of series) {
    const key = make(head, "span", { class: "key", style: `--of: var(--${color})` }, label + " ");
    const value = make(key, "b");
    views.push((seconds) => {
      const now = valueAt(points, seconds);
      value.textContent = now === null ? "–" : `${formatTick(now, digits)} ${unit(label)}`;
    });
  }
}

// series: [{label, color, digits, points: [[seconds, value or null]]}]; unit: the unit of a label.
function addPlot({ id, title, source, name, unit, series, low, high, peak, note }) {
  const panel = make(byId("plots"), "section", { class: "panel", id });
  const head = make(panel, "div", { class: "head" });
  make(head, "h2", {}, title);
  describeGap(panel, source, name);
  const shown = series.filter(({ points }) => points.some(([, value]) => value !== null));
  if (shown.length === 0) return;
  addKeys(head, shown, unit);
  // In words above the plot, where no curve runs; the ring says where it is.
  if (peak) make(head, "span", { class: "peak-text" }, `◯ most: ${peak.shown.toFixed(2)} g at ${formatSeconds(peak.seconds, 2)}`);
  if (note) make(panel, "p", { class: "missing" }, note);
  const svg = make(panel, "svg", { role: "img", "aria-label": `${title}, over time` });
  const height = 150;
  const box = { left: 44, right: 0, top: 10, bottom: height - 22 };
  const x = (seconds) => box.left + (seconds - first) / (last - first) * (box.right - box.left);
  const y = (value) => box.bottom - (value - low) / (high - low) * (box.bottom - box.top);
  let cursor = null;
  const showCursor = (seconds) => {
    for (const name of ["x1", "x2"]) cursor?.setAttribute(name, x(seconds).toFixed(2));
  };
  const draw = () => {
    const width = Math.max(200, svg.clientWidth);
    box.right = width - 14;
    svg.replaceChildren();
    svg.setAttribute("viewBox", `0 0 ${width} ${height}`);
    svg.setAttribute("height", height);
    drawAxes(svg, box, low, high, x, y);
    drawCurves(svg, shown, x, y);
    cursor = make(svg, "line", { class: "cursor", y1: box.top, y2: box.bottom });
    if (peak) drawPeak(svg, peak, x, y);
    showCursor(position);
  };
  new ResizeObserver(draw).observe(svg);
  views.push(showCursor);
  addDragging(svg, (pointer) => {
    const part = (pointer.clientX - svg.getBoundingClientRect().left - box.left) / (box.right - box.left);
    return first + part * (last - first);
  });
}

function rangeOf(series, atLeast) {
  let [low, high] = atLeast;
  for (const { points } of series) {
    for (const [, value] of points) {
      if (value !== null) [low, high] = [Math.min(low, value), Math.max(high, value)];
    }
  }
  const step = niceStep(high - low, 4);
  return { low: Math.floor(low / step) * step, high: Math.ceil(high / step) * step };
}

function findPeak(records) {
  let peak = null;
  for (const [seconds, ...axes] of records) {
    for (const value of axes) if (!peak || Math.abs(value) > Math.abs(peak.value)) peak = { seconds, value };
  }
  if (!peak) return null;
  // The file's steps are 1/32 g wide; the description has the peak from before it was rounded.
  const size = Math.abs(peak.value);
  const isSame = event.maxG !== null && Math.abs(event.maxG - size) <= 1 / 64 + 1e-6;
  return { ...peak, shown: isSame ? event.maxG : size };
}

function buildPlots() {
  const column = (records, index, factor = 1) =>
    records.map((record) => [record[0], record[index] === undefined || record[index] === null ? null : record[index] * factor]);
  const speed = [{ label: "over ground", color: "first", digits: 1, points: column(gps.records, 3, KmhPerKnot) }];
  addPlot({ id: "speed", title: "Speed, km/h", source: gps, name: "positions", unit: () => "km/h", series: speed,
    ...rangeOf(speed, [0, 10]) });
  const axes = ["x (upright)", "y", "z"].map((label, axis) => (
    { label, color: ["third", "first", "second"][axis], digits: 2, points: column(acc.records, axis + 1) }));
  addPlot({ id: "acceleration", title: "Acceleration without gravity, g", source: acc, name: "accelerations",
    note: "Each value is the mean of 0.61 s: a short knock was harder than the curve shows.",
    unit: () => "g", series: axes, peak: findPeak(acc.records), ...rangeOf(axes, [-0.5, 0.5]) });
  const machine = [
    { label: "processor", color: "first", digits: 0, points: column(other.records, 1) },
    { label: "temperature", color: "second", digits: 0, points: column(other.records, 2) }];
  const knowsHeat = machine[1].points.some(([, value]) => value !== null);
  addPlot({ id: "machine", title: knowsHeat ? "Machine, % and °C" : "Machine, %", source: other,
    name: "machine state", unit: (label) => (label === "processor" ? "%" : "°C"), series: machine,
    ...rangeOf(machine, [0, 100]) });
}
