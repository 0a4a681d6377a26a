// The event, what its files hold, and the time line of all of it, in seconds relative to the event.
const { event, gps, acc, other, problems, isChecked, isBesideFiles, laterLabel } = JSON.parse(document.getElementById("data").textContent);
const KmhPerKnot = 1.852;
const byId = (id) => document.getElementById(id);
const clamp = (value, low, high) => Math.min(Math.max(value, low), high);
const streamOf = (type) => event.streams.find((stream) => stream.type === type);
const fileOf = (type) => event.files.find((file) => file.type === type);

function make(parent, tag, attributes = {}, text) {
  const isSvg = tag === "svg" || parent instanceof SVGElement;
  const element = isSvg ? document.createElementNS("http://www.w3.org/2000/svg", tag) : document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) element.setAttribute(name, value);
  if (text !== undefined) element.textContent = text;
  parent.append(element);
  return element;
}
const formatSeconds = (seconds, digits = 1) =>
  (seconds < 0 ? "−" : "+") + Math.abs(seconds).toFixed(digits) + " s";

// Without a name by its number in the settings: the types have each other's.
const cameraName = (number) => event.cameraNames?.[`VideoCamera${number}`] || `Camera ${1 - number}`;
// What a file or stream is, in words.
function nameOf(type) {
  const [, kind, number, rest] = /^(Video|Thumbnail)Camera([01])(Stream|Times)?$/.exec(type) ?? [];
  if (kind === "Thumbnail") return `${cameraName(number)}, still`;
  if (kind) return cameraName(number) + ({ Stream: ", stream without a clip", Times: ", times of its pictures" }[rest] ?? "");
  return {
    Audio: "Sound", Gps: "Positions", GpsTimes: "Positions, their times", Acc: "Acceleration",
    AccTimes: "Acceleration, its times", Other: "Machine state", OtherTimes: "Machine state, its times",
    Preview: "Preview clip", PreviewStill: "Preview picture",
  }[type] ?? type;
}

// From the first to the last that any stream has.
const windows = event.streams.map((stream) => [stream.fromSeconds, stream.toSeconds]);
for (const { records } of [gps, acc, other]) {
  if (records.length > 0) windows.push([records[0][0], records[records.length - 1][0]]);
}
if (windows.length === 0) {
  const start = event.request.startSeconds;
  windows.push([start, start + event.request.durationSeconds]);
}
const first = Math.min(...windows.map(([from]) => from));
const last = Math.max(first + 0.1, ...windows.map(([, to]) => to));
