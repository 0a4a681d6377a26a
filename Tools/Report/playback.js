// The clips in step, and the controls.

// The first that can be played leads: its clock is the page's while it plays, the others follow.
const clips = [];
const titles = { VideoCamera1: "Camera 1", VideoCamera0: "Camera 0", Audio: "Sound" };

function toBlobUrl(element) {
  const binary = atob(element.textContent);
  const bytes = new Uint8Array(binary.length);
  for (let i = 0; i < binary.length; ++i) bytes[i] = binary.charCodeAt(i);
  element.textContent = "";
  return URL.createObjectURL(new Blob([bytes], { type: element.dataset.mime }));
}

function addClip(source, parent) {
  const type = source.dataset.type;
  const element = make(parent, type === "Audio" ? "audio" : "video", { preload: "auto", playsinline: "" });
  element.muted = true;
  element.disableRemotePlayback = true;
  const clip = { type, element, from: streamOf(type)?.fromSeconds ?? first, wanted: null, broken: false };
  element.addEventListener("seeked", () => applySeek(clip));
  element.addEventListener("loadedmetadata", () => seekClip(clip));
  element.addEventListener("error", () => {
    clip.broken = true;
    make(parent, "p", { class: "missing" }, "This browser cannot play the clip.");
    element.remove();
    chooseLead();
  });
  element.src = toBlobUrl(source);
  clips.push(clip);
}

function buildClips() {
  const sources = [...document.querySelectorAll("script.clip")];
  for (const type of ["VideoCamera1", "VideoCamera0"]) {
    const figure = make(byId("cameras"), "figure", { id: type });
    const source = sources.find((candidate) => candidate.dataset.type === type);
    make(figure, "figcaption", {}, titles[type]);
    if (source) addClip(source, figure);
    else make(figure, "p", { class: "missing" }, "This event has no clip of the camera.");
  }
  const sound = sources.find((source) => source.dataset.type === "Audio");
  if (sound) addClip(sound, byId("cameras"));
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

function chooseLead() {
  lead = clips.find((clip) => !clip.broken) ?? null;
  for (const clip of clips) clip.element.muted = muted || clip !== lead;
  byId("mute").textContent = muted ? "Sound off" : "Sound on";
  byId("mute").setAttribute("aria-pressed", String(muted));
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
  for (const clip of clips) seekClip(clip);
  show();
}

function setPlaying(value) {
  if (value && position >= last - 0.01) seek(first);
  playing = value;
  lastTick = performance.now();
  byId("play").textContent = playing ? "Pause" : "Play";
  byId("play").setAttribute("aria-label", playing ? "Pause" : "Play");
  if (playing) {
    // At once: a browser lets sound begin within the reader's own click only.
    for (const clip of clips) keepPlaying(clip);
    requestAnimationFrame(tick);
  } else {
    for (const clip of clips) {
      clip.element.pause();
      seekClip(clip);
    }
  }
}

// Small drifts are made up by a little more or less speed, which nobody sees; large ones by a jump.
function follow(clip) {
  const drift = clip.element.currentTime - timeOf(clip);
  if (clip.element.seeking) return;
  if (Math.abs(drift) > 0.4) {
    seekClip(clip);
  } else {
    const trim = Math.abs(drift) > 0.02 ? clamp(-drift, -0.15, 0.15) : 0;
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
    show();
    return;
  }
  for (const clip of clips) keepPlaying(clip);
  show();
  requestAnimationFrame(tick);
}

// What shows the position: each view adds a function that is called with it.
const views = [];
function show() {
  for (const view of views) view(position);
}

function buildTransport() {
  const scrubber = byId("scrubber");
  scrubber.min = first;
  scrubber.max = last;
  scrubber.addEventListener("input", () => seek(Number(scrubber.value)));
  const part = (0 - first) / (last - first);
  const mark = byId("event-mark");
  // The middle of the slider's knob, some 16 px wide, never comes nearer to the ends than half of it.
  mark.style.left = `calc(8px + ${part} * (100% - 16px))`;
  mark.hidden = part < 0 || part > 1;
  views.push((seconds) => {
    scrubber.value = seconds;
    scrubber.setAttribute("aria-valuetext", formatSeconds(seconds));
    byId("time").textContent = formatSeconds(seconds, 2);
  });
  byId("play").addEventListener("click", () => setPlaying(!playing));
  byId("to-event").addEventListener("click", () => seek(0));
  byId("rate").addEventListener("change", (change) => { rate = Number(change.target.value); });
  byId("mute").addEventListener("click", () => { muted = !muted; chooseLead(); });
  document.addEventListener("keydown", onKey);
}

function onKey(key) {
  if (key.ctrlKey || key.altKey || key.metaKey) return;
  const isControl = ["BUTTON", "SELECT", "INPUT"].includes(key.target.tagName);
  const step = key.shiftKey ? 0.1 : 1;
  const actions = {
    " ": () => setPlaying(!playing),
    ArrowLeft: () => seek(position - step),
    ArrowRight: () => seek(position + step),
    0: () => seek(0),
    m: () => byId("mute").click(),
  };
  const isOfControl = isControl && (key.key === " " || key.key.startsWith("Arrow"));
  if (!(key.key in actions) || isOfControl) return;
  key.preventDefault();
  actions[key.key]();
}
