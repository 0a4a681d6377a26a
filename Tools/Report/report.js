// What the description says, and the start of the page.

function formatBytes(bytes) {
  if (bytes >= 1e6) return `${(bytes / 1e6).toFixed(1)} MB`;
  return bytes >= 1e3 ? `${(bytes / 1e3).toFixed(1)} kB` : `${bytes} B`;
}
const formatSpeed = (knots) => `${(knots * KmhPerKnot).toFixed(1)} km/h (${knots.toFixed(1)} kn)`;

function describeClock() {
  if (event.timeSource !== "receiver") return "the unit's clock, which no receiver has confirmed";
  const ahead = event.systemAheadSeconds;
  if (ahead === null) return "the receiver";
  return `the receiver; the unit's clock was ${Math.abs(ahead).toFixed(1)} s ${ahead < 0 ? "behind" : "ahead of"} it`;
}

function buildHead() {
  byId("when").textContent = event.time.replace("T", " ").replace("Z", " UTC");
  const chip = (text, kind = "") => make(byId("chips"), "li", { class: kind }, text);
  chip({ request: "on request", acceleration: "by acceleration", recovery: "recovered" }[event.trigger] ?? event.trigger);
  if (event.maxG !== null) chip(`up to ${event.maxG.toFixed(2)} g`);
  if (event.maxSpeedKnots !== null) chip(`up to ${(event.maxSpeedKnots * KmhPerKnot).toFixed(0)} km/h`);
  if (event.interrupted) chip("ended early", "alarm");
  if (event.timeSource !== "receiver") chip("time not confirmed");
  const missing = (event.missing ?? []).map((part) => `Asked for, but not there: ${part.type}, ${part.reason}`);
  problems.unshift(...missing);
  byId("problems").hidden = problems.length === 0;
  for (const problem of problems) make(byId("problems"), "li", {}, problem);
}

function buildFacts() {
  const { request, position: place } = event;
  const facts = {
    "Time": new Date(event.time).toLocaleString(undefined, { dateStyle: "medium", timeStyle: "long" }),
    "Time by": describeClock(),
    "Label": event.label || "none",
    "Id": event.id,
    "Trigger": event.trigger,
    "Asked for": `${request.durationSeconds} s from ${formatSeconds(request.startSeconds, 0)}${request.preview ? ", with preview" : ""}`,
    "Recorded": event.streams.length > 0 ? `${formatSeconds(first)} to ${formatSeconds(last)}` : "nothing",
    "Manager": event.manager || "none",
    "Waited for it": `${event.queuedSeconds.toFixed(1)} s`,
    "Ended early": event.interrupted ? "yes" : "no",
    "Highest speed": event.maxSpeedKnots === null ? "not known" : formatSpeed(event.maxSpeedKnots),
    "Highest acceleration": event.maxG === null ? "not known" : `${event.maxG.toFixed(2)} g`,
    "Position": place === null ? "not known"
      : `${place.latitude.toFixed(6)}°, ${place.longitude.toFixed(6)}° at ${formatSpeed(place.speedKnots)}, fix of ${place.fixTime}`,
    "Software": event.software,
  };
  for (const [name, value] of Object.entries(facts)) {
    const pair = make(byId("facts"), "div");
    make(pair, "dt", {}, name);
    make(pair, "dd", {}, value);
  }
  for (const file of event.files) {
    const row = make(document.querySelector("#files tbody"), "tr");
    const stream = streamOf(file.type);
    make(row, "td", {}, file.type);
    make(row, "td", {}, stream ? `${formatSeconds(stream.fromSeconds, 2)} to ${formatSeconds(stream.toSeconds, 2)}` : "–");
    make(row, "td", { class: "number" }, formatBytes(file.bytes));
    const name = make(row, "td", {}, file.name);
    make(name, "br");
    make(name, "code", {}, file.sha256);
  }
}

buildHead();
buildFacts();
buildClips();
chooseLead();
buildTransport();
buildPlots();
buildTrack();
setPlaying(false);
show();
