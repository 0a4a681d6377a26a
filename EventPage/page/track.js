// The track to scale, north up.

const formatPlace = (latitude, longitude) => `${Math.abs(latitude).toFixed(6)}° ${latitude < 0 ? "S" : "N"}, ` +
  `${Math.abs(longitude).toFixed(6)}° ${longitude < 0 ? "W" : "E"}`;
const mapOf = (latitude, longitude) => `https://www.openstreetmap.org/?mlat=${latitude.toFixed(6)}&mlon=${longitude.toFixed(6)}` +
  `#map=17/${latitude.toFixed(6)}/${longitude.toFixed(6)}`;

// Metres east and north of its first point.
function project(fixes) {
  const metresPerDegree = 111320;
  const [, latitude0, longitude0] = fixes[0];
  const shrink = Math.cos(latitude0 * Math.PI / 180);
  return fixes.map(([seconds, latitude, longitude, , course]) => {
    const east = ((longitude - longitude0 + 540) % 360 - 180) * shrink;
    return { seconds, east: east * metresPerDegree, north: (latitude - latitude0) * metresPerDegree, course };
  });
}

function placeAt(points, seconds) {
  const next = points.findIndex((point) => point.seconds > seconds);
  if (next === 0) return points[0];
  if (next < 0) return points[points.length - 1];
  const [a, b] = [points[next - 1], points[next]];
  const part = (seconds - a.seconds) / (b.seconds - a.seconds);
  return { seconds, east: a.east + part * (b.east - a.east), north: a.north + part * (b.north - a.north),
    course: a.course };
}

function nearestTo(points, east, north) {
  let nearest = points[0];
  for (const point of points) {
    const distance = (candidate) => Math.hypot(candidate.east - east, candidate.north - north);
    if (distance(point) < distance(nearest)) nearest = point;
  }
  return nearest;
}

function drawScale(svg, width, height, metresPerPixel) {
  const longest = metresPerPixel * width / 3;
  const power = 10 ** Math.floor(Math.log10(longest));
  const metres = power * [5, 2, 1].find((factor) => factor * power <= longest);
  const right = 16 + metres / metresPerPixel;
  make(svg, "path", { class: "bar", d: `M16 ${height - 14}v6H${right}v-6` });
  make(svg, "text", { x: right + 6, y: height - 8, class: "scale-text" },
    metres >= 1000 ? `${metres / 1000} km` : `${metres} m`);
  make(svg, "text", { x: width - 20, y: 20, "text-anchor": "middle" }, "N");
  make(svg, "path", { class: "bar", d: `M${width - 20} 44V26m-4 6 4-6 4 6` });
}

function buildTrack() {
  const panel = byId("track");
  const fixes = gps.records.filter((record) => record.length > 1);
  if (fixes.length === 0) {
    const reason = gps.records.length > 0 ? "The receiver had no valid position." : "This event has no positions.";
    make(panel, "p", { class: "missing" }, reason);
    return;
  }
  const points = project(fixes);
  const svg = make(panel, "svg", { role: "img", "aria-label": "Track to scale, north up" });
  let toX, toY, gone, here;
  const line = (list) => list.map((point) => `${toX(point).toFixed(1)},${toY(point).toFixed(1)}`).join(" ");
  const showPlace = (seconds) => {
    if (!here) return;
    const place = placeAt(points, seconds);
    gone.setAttribute("points", line([...points.filter((point) => point.seconds < place.seconds), place]));
    here.setAttribute("transform", `translate(${toX(place).toFixed(1)} ${toY(place).toFixed(1)}) rotate(${place.course})`);
  };
  const draw = () => {
    const width = Math.max(200, svg.clientWidth);
    const spanOf = (pick) => {
      const values = points.map(pick);
      return { middle: (Math.min(...values) + Math.max(...values)) / 2, span: Math.max(...values) - Math.min(...values) };
    };
    const [east, north] = [spanOf((point) => point.east), spanOf((point) => point.north)];
    const height = Math.round(clamp(width * clamp(north.span / Math.max(east.span, 1), 0.7, 1.35), 240, 520));
    const metresPerPixel = Math.max(east.span / (width - 64), north.span / (height - 72), 20 / width);
    toX = (point) => width / 2 + (point.east - east.middle) / metresPerPixel;
    toY = (point) => (height - 20) / 2 - (point.north - north.middle) / metresPerPixel;
    svg.replaceChildren();
    svg.setAttribute("viewBox", `0 0 ${width} ${height}`);
    svg.setAttribute("height", height);
    svg.onpointerdown = (pointer) => {
      const box = svg.getBoundingClientRect();
      seek(nearestTo(points, (pointer.clientX - box.left - width / 2) * metresPerPixel + east.middle,
        ((height - 20) / 2 - (pointer.clientY - box.top)) * metresPerPixel + north.middle).seconds);
    };
    make(svg, "polyline", { class: "way", points: line(points) });
    gone = make(svg, "polyline", { class: "gone" });
    const moment = placeAt(points, 0);
    make(svg, "circle", { class: "moment", cx: toX(moment), cy: toY(moment), r: 10 });
    here = make(svg, "path", { class: "here", d: "M0-9 7 8 0 4-7 8Z" });
    drawScale(svg, width, height, metresPerPixel);
    showPlace(position);
  };
  new ResizeObserver(draw).observe(svg);
  views.push(showPlace);
  const place = make(panel, "p", { class: "missing" });
  const map = make(make(panel, "p", { class: "outward" }), "a", { target: "_blank", rel: "noopener noreferrer" },
    "Show this place in a map (leaves this page: openstreetmap.org learns the place)");
  views.push((seconds) => {
    const fix = fixes[Math.max(0, indexAt(fixes, seconds))];
    place.textContent = formatPlace(fix[1], fix[2]);
    map.href = mapOf(fix[1], fix[2]);
  });
}
