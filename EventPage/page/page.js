// What the description says, and the start of the page.

const formatSpeed = (knots) => `${(knots * KmhPerKnot).toFixed(1)} km/h (${knots.toFixed(1)} kn)`;

function describeClock() {
  if (event.timeSource !== "receiver") return "the unit's clock, which no receiver has confirmed";
  const ahead = event.systemAheadSeconds;
  if (ahead === null) return "the receiver";
  return `the receiver; the unit's clock was ${Math.abs(ahead).toFixed(1)} s ${ahead < 0 ? "behind" : "ahead of"} it`;
}

// What is not as it was asked for, in words. Events of older recorders do not list it: their windows tell.
function findDifferences() {
  const { startSeconds, durationSeconds } = event.request;
  const missing = event.missing ?? [];
  const inWords = ({ type, reason }) => (type.startsWith("Video") ? reason.replace("entries", "pictures") : reason);
  const list = missing.map((part) => `${nameOf(part.type)}: ${inWords(part)}`);
  for (const { type, fromSeconds, toSeconds, rate: entriesASecond } of event.streams) {
    if (missing.some((part) => part.type === type)) continue;
    const tolerance = 1 + (entriesASecond > 0 ? 1 / entriesASecond : 0);
    const [late, early] = [fromSeconds - startSeconds, startSeconds + durationSeconds - toSeconds];
    if (late > tolerance) list.push(`${nameOf(type)}: begins ${late.toFixed(1)} s late`);
    if (early > tolerance) list.push(`${nameOf(type)}: ends ${early.toFixed(1)} s early`);
  }
  if (event.interrupted) list.push("it was ended early, by a stop or because power failed");
  return list;
}

function describeDifferences() {
  if (event.trigger === "recovery") return "This event was recovered after power had failed; what had been asked for is not known.";
  const differences = findDifferences();
  return differences.length === 0 ? "All that was asked for is here." : `Not all is as it was asked for. ${differences.join("; ")}.`;
}

function describeProof() {
  const key = event.seal?.publicKey.slice(0, 16);
  if (problems.length > 0) return "Something is wrong with the event's files:";
  if (!key) return `${isChecked ? "Every file is as the description says, but the event" : "The event"} is not signed: nobody can tell whether it was changed.`;
  if (isChecked) return `Unchanged: every file and the signature were right when this page was made. Signed with the key ${key}…`;
  return `Signed by the unit with the key ${key}… This page cannot check that; tavi-verify tells whether something was changed since.`;
}

function buildVerdict() {
  const differs = describeDifferences();
  byId("differs").textContent = differs;
  byId("differs").classList.toggle("alarm", !differs.startsWith("All"));
  byId("proof").textContent = describeProof();
  byId("proof").classList.toggle("alarm", problems.length > 0 || !event.seal);
  byId("problems").hidden = problems.length === 0;
  for (const problem of problems) make(byId("problems"), "li", {}, problem);
}

function buildHead() {
  byId("when").textContent = event.time.replace("T", " ").replace("Z", " UTC");
  const chip = (text, kind = "") => make(byId("chips"), "li", { class: kind }, text);
  chip({ request: "on request", acceleration: "by acceleration", recovery: "recovered" }[event.trigger] ?? event.trigger);
  if (event.maxG !== null) chip(`up to ${event.maxG.toFixed(2)} g`);
  if (event.maxSpeedKnots !== null) chip(`up to ${(event.maxSpeedKnots * KmhPerKnot).toFixed(0)} km/h`);
  if (event.interrupted) chip("ended early", "alarm");
  if (event.timeSource !== "receiver") chip("time not confirmed");
  if (laterLabel) make(byId("when").parentElement, "p", { id: "later" }, `Written later: ${laterLabel}`);
  buildVerdict();
}

function buildFacts() {
  const { request, position: place } = event;
  const facts = {
    "Time": new Date(event.time).toLocaleString(undefined, { dateStyle: "medium", timeStyle: "long" }),
    "Time by": describeClock(),
    "Label": event.label || "none",
    ...(laterLabel ? { "Written later": laterLabel } : {}),
    "Id": event.id,
    "Why": { request: "somebody asked for it", acceleration: "the acceleration was high", recovery: "power failed while it was recorded" }[event.trigger] ?? event.trigger,
    "Asked for": `${request.durationSeconds} s from ${formatSeconds(request.startSeconds, 0)}${request.preview ? ", with preview" : ""}`,
    "Recorded": event.streams.length > 0 ? `${formatSeconds(first)} to ${formatSeconds(last)}` : "nothing",
    "Saving began": event.manager ? `${event.queuedSeconds.toFixed(1)} s after the event; nothing is lost meanwhile` : "at the start after the failure",
    "Ended early": event.interrupted ? "yes" : "no",
    "Highest speed": event.maxSpeedKnots === null ? "not known" : formatSpeed(event.maxSpeedKnots),
    "Highest acceleration": event.maxG === null ? "not known" : `${event.maxG.toFixed(2)} g, mean of 0.61 s`,
    "Position": place === null ? "not known"
      : `${formatPlace(place.latitude, place.longitude)} at ${formatSpeed(place.speedKnots)}, fix of ${place.fixTime}`,
    "Signed with": event.seal ? `${event.seal.publicKey}, as number ${event.seal.sequence}` : "nothing",
    "Software": event.software,
  };
  for (const [name, value] of Object.entries(facts)) {
    const pair = make(byId("facts"), "div");
    make(pair, "dt", {}, name);
    make(pair, "dd", {}, value);
  }
}

buildHead();
buildFacts();
buildFiles();
buildClips();
chooseLead();
buildTransport();
buildPlots();
buildTrack();
setPlaying(false);
