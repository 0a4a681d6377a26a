// The clips in step.

// The first that can be played leads: its clock is the page's while it plays, the others follow.
const clips = [];
const cameraTypes = ["VideoCamera1", "VideoCamera0"];

function addClip(type, parent) {
  const screen = type === "Audio" ? parent : make(parent, "div", { class: "screen" });
  const element = make(screen, type === "Audio" ? "audio" : "video", { preload: "auto", playsinline: "" });
  if (type !== "Audio") element.setAttribute("aria-label", `Clip of ${nameOf(type)}`);
  element.muted = true;
  element.disableRemotePlayback = true;
  const clip = { type, element, from: streamOf(type)?.fromSeconds ?? first, wanted: null, broken: false, delay: 0 };
  element.addEventListener("seeked", () => applySeek(clip));
  element.addEventListener("loadedmetadata", () => seekClip(clip));
  element.addEventListener("error", () => {
    clip.broken = true;
    for (const useless of [element, ...parent.querySelectorAll(".screen, .note, .tools")]) useless.remove();
    showStill(parent, type);
    make(parent, "p", { class: "missing" }, `The clip of ${nameOf(type)} is not there, or this browser cannot play it.`);
    chooseLead();
  });
  element.src = urlOf(type);
  clips.push(clip);
  if (screen !== parent) keepPictures(clip, screen);
  return clip;
}

// In the place of a clip.
function showStill(figure, type) {
  const still = type !== "Audio" && urlOf(`ThumbnailCamera${type.slice(-1)}`);
  if (still) make(figure, "img", { src: still, alt: `Still of ${nameOf(type)}` });
}

function buildClips() {
  for (const type of cameraTypes) {
    const figure = make(byId("cameras"), "figure", { id: type });
    make(figure, "figcaption", {}, nameOf(type));
    if (urlOf(type)) {
      buildPicture(figure, addClip(type, figure));
      continue;
    }
    showStill(figure, type);
    make(figure, "p", { class: "missing" }, `This event has no clip of ${nameOf(type)}.`);
  }
  const isWithClip = cameraTypes.some(urlOf);
  if (!isWithClip && urlOf("Audio")) addClip("Audio", byId("cameras"));
}

let position = first;
let playing = false;
let muted = false;
let rate = 1;
let lead = null;
let lastTick = 0;
const timeOf = (clip) => position - clip.from;
const durationOf = (clip) => (Number.isFinite(clip.element.duration) ? clip.element.duration : 0);
const isInside = (clip) => !clip.broken && timeOf(clip) >= 0 && timeOf(clip) < durationOf(clip);
// Seconds from one picture to the next.
const intervalOf = (clip) => {
  const { entries, fromSeconds, toSeconds, rate: asked } = streamOf(clip.type) ?? {};
  return entries > 1 && toSeconds > fromSeconds ? (toSeconds - fromSeconds) / (entries - 1) : 1 / (asked || 25);
};

function chooseLead() {
  lead = clips.find((clip) => !clip.broken) ?? null;
  for (const clip of clips) clip.element.muted = muted || clip !== lead;
  byId("mute").textContent = muted ? "Unmute" : "Mute";
  byId("mute").disabled = !lead;
}

// A seek that comes while one is under way waits for its end, so that dragging does not queue up.
function applySeek(clip) {
  if (clip.wanted === null || clip.element.seeking) return;
  const target = clip.wanted;
  clip.wanted = null;
  if (Math.abs(clip.element.currentTime - target) > 0.001) clip.element.currentTime = target;
}
function seekClip(clip) {
  if (clip.broken || clip.element.readyState === 0) return;
  clip.wanted = clamp(timeOf(clip), 0, Math.max(0, durationOf(clip) - 0.01));
  applySeek(clip);
}

function seek(seconds) {
  position = clamp(seconds, first, last);
  for (const clip of clips) {
    dropPictures(clip);
    seekClip(clip);
  }
  show();
}

// To the middle of the next picture of the camera that has most of them: its beginning may be taken for the end of the
// one before.
function stepPicture(count) {
  setPlaying(false);
  const cameras = clips.filter((clip) => clip.type !== "Audio" && !clip.broken);
  const [finest] = cameras.sort((a, b) => intervalOf(a) - intervalOf(b));
  const from = finest?.from ?? first;
  const interval = finest ? intervalOf(finest) : 0.04;
  seek(from + (Math.floor((position - from) / interval + 1e-3) + count + 0.5) * interval);
}

function setPlaying(value) {
  if (value && position >= last - 0.01) seek(first);
  playing = value;
  lastTick = performance.now();
  byId("play").textContent = playing ? "Pause" : "Play";
  if (playing) {
    // At once: a browser lets sound begin within the reader's own click only.
    for (const clip of clips) keepPlaying(clip);
    requestAnimationFrame(tick);
  } else {
    for (const clip of clips) {
      clip.element.pause();
      dropPictures(clip);
      seekClip(clip);
    }
  }
  show();
}

// A browser shows a picture some time after its clock has reached it, the longer the more it has to do, and not as long for
// each clip: what counts is the pictures that are seen. `delay`: seconds from a picture's time to its being seen, smoothed.
function measureDelay(clip, mediaTime) {
  const { element } = clip;
  const delay = element.currentTime - mediaTime;
  if (!element.paused && !element.seeking && delay > -0.05 && delay < 0.5) clip.delay += 0.2 * (delay - clip.delay);
}

// Small drifts are made up by more or less speed, which nobody sees and, of a clip that is not heard, nobody hears; large
// ones by a jump.
function follow(clip) {
  const drift = clip.element.currentTime - timeOf(clip) - clip.delay + lead.delay;
  if (clip.element.seeking) return;
  if (Math.abs(drift) > 0.5) {
    seekClip(clip);
  } else {
    const trim = Math.abs(drift) > 0.008 ? clamp(-drift * 2, -0.5, 0.5) : 0;
    const wanted = rate * (1 + trim);
    if (Math.abs(clip.element.playbackRate - wanted) > 0.01) clip.element.playbackRate = wanted;
  }
}

function keepPlaying(clip) {
  const { element } = clip;
  if (clip.broken || element.readyState === 0) return;
  // One that has ended would begin anew.
  if (!isInside(clip) || element.ended) {
    if (!element.paused) element.pause();
  } else if (element.paused) {
    element.playbackRate = rate;
    if (Math.abs(element.currentTime - timeOf(clip)) > 0.05) seekClip(clip);
    element.play().catch(() => {});
  } else if (clip !== lead) {
    follow(clip);
  } else if (element.playbackRate !== rate) {
    element.playbackRate = rate;
  }
}

function advance(elapsedSeconds) {
  const isLed = lead && isInside(lead);
  if (!isLed) position += Math.min(elapsedSeconds, 0.25) * rate;
  else if (!lead.element.paused && !lead.element.seeking) position = lead.from + lead.element.currentTime;
  // Nobody leads behind the end of the leading clip, though its clock stands a little before it.
  if (isLed && lead.element.ended) position = lead.from + durationOf(lead);
}

function tick(now) {
  if (!playing) return;
  advance(Math.max(0, now - lastTick) / 1000);
  lastTick = now;
  if (position >= last) {
    position = last;
    setPlaying(false);
    return;
  }
  for (const clip of clips) keepPlaying(clip);
  showPairs();
  show();
  requestAnimationFrame(tick);
}

// What shows the position: each view adds a function that is called with it.
const views = [];
function show() {
  for (const view of views) view(position);
}
