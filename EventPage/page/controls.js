// What the reader presses: buttons, keys, and each camera's own.

const rates = [0.1, 0.25, 0.5, 1, 2, 4];

function setRate(value) {
  rate = value;
  byId("rate").textContent = { 0.1: "⅒×", 0.25: "¼×", 0.5: "½×" }[rate] ?? `${rate}×`;
  byId("slower").disabled = rate === rates[0];
  byId("faster").disabled = rate === rates[rates.length - 1];
}
const nextRate = (step) => rates[clamp(rates.indexOf(rate) + step, 0, rates.length - 1)];

// The time is spoken when it stands still, not at each picture.
let announcing = 0;
function announce(seconds) {
  clearTimeout(announcing);
  if (playing) return;
  announcing = setTimeout(() => {
    byId("scrubber").setAttribute("aria-valuetext", formatSeconds(seconds));
    byId("announce").textContent = `${formatSeconds(seconds, 2)} from the event`;
  }, 400);
}

function placeMark(mark, from, to = from) {
  const part = (seconds) => (seconds - first) / (last - first);
  // The middle of the slider's knob, some 16 px wide, never comes nearer to the ends than half of it.
  mark.style.left = `calc(8px + ${part(from)} * (100% - 16px))`;
  if (to > from) mark.style.width = `calc(${part(to) - part(from)} * (100% - 16px))`;
}

function buildTransport() {
  const scrubber = byId("scrubber");
  scrubber.min = first;
  scrubber.max = last;
  scrubber.addEventListener("input", () => seek(Number(scrubber.value)));
  placeMark(byId("event-mark"), 0);
  byId("event-mark").hidden = first > 0 || last < 0;
  views.push((seconds) => {
    scrubber.value = seconds;
    byId("time").textContent = formatSeconds(seconds, 2);
    announce(seconds);
  });
  setRate(1);
  const press = {
    play: () => setPlaying(!playing), back: () => stepPicture(-1), forth: () => stepPicture(1),
    "to-event": () => seek(0), slower: () => setRate(nextRate(-1)), faster: () => setRate(nextRate(1)),
    mute: () => { muted = !muted; chooseLead(); }, picture: savePicture,
    "part-from": () => markPart(position, part.to), "part-to": () => markPart(part.from, position), "part-save": savePart,
  };
  for (const [id, action] of Object.entries(press)) byId(id).addEventListener("click", action);
  document.addEventListener("keydown", onKey);
  // Else a button that has the focus would be pressed by the space bar's way up.
  document.addEventListener("keyup", (key) => { if (key.key === " ") key.preventDefault(); });
}

function onKey(key) {
  if (key.ctrlKey || key.altKey || key.metaKey) return;
  const step = key.shiftKey ? 0.1 : 1;
  const actions = {
    " ": () => { if (!key.repeat) setPlaying(!playing); },
    ArrowLeft: () => seek(position - step), ArrowRight: () => seek(position + step),
    ",": () => stepPicture(-1), ".": () => stepPicture(1), 0: () => seek(0),
    m: () => byId("mute").click(), s: () => byId("picture").click(),
    i: () => byId("part-from").click(), o: () => byId("part-to").click(),
  };
  const name = key.key.length === 1 ? key.key.toLowerCase() : key.key;
  if (!Object.hasOwn(actions, name)) return;
  key.preventDefault();
  actions[name]();
}

// The larger the picture, the less of it is seen: `x` and `y` are what of it lies in the middle, 0 to 1.
function makeZoom(figure, screen) {
  const zoom = { scale: 1, x: 0.5, y: 0.5 };
  const apply = () => {
    const margin = 0.5 / zoom.scale;
    zoom.x = clamp(zoom.x, margin, 1 - margin);
    zoom.y = clamp(zoom.y, margin, 1 - margin);
    screen.style.transform = `scale(${zoom.scale}) translate(${(0.5 - zoom.x) * 100}%, ${(0.5 - zoom.y) * 100}%)`;
    figure.classList.toggle("zoomed", zoom.scale > 1);
  };
  const by = (factor) => {
    zoom.scale = clamp(zoom.scale * factor, 1, 8);
    apply();
    return zoom.scale;
  };
  screen.addEventListener("pointerdown", (pointer) => {
    if (zoom.scale > 1) screen.setPointerCapture(pointer.pointerId);
  });
  screen.addEventListener("pointermove", (pointer) => {
    if (!screen.hasPointerCapture(pointer.pointerId)) return;
    zoom.x -= pointer.movementX / (screen.clientWidth * zoom.scale);
    zoom.y -= pointer.movementY / (screen.clientHeight * zoom.scale);
    apply();
  });
  screen.addEventListener("wheel", (wheel) => {
    // Without a key the wheel is the page's.
    if (!wheel.ctrlKey && !document.fullscreenElement) return;
    wheel.preventDefault();
    by(wheel.deltaY < 0 ? 1.25 : 0.8);
  }, { passive: false });
  return by;
}

// A picture that is not of the moment is dimmed, and says from when it is.
function markForeign(figure, clip, note) {
  views.push((seconds) => {
    const end = clip.from + durationOf(clip);
    const isEarly = seconds < clip.from - 1e-6;
    const isForeign = isEarly || (durationOf(clip) > 0 && seconds > end + 1e-6);
    figure.classList.toggle("foreign", isForeign);
    note.hidden = !isForeign;
    if (isForeign) note.textContent = isEarly ? `Its first picture, of ${formatSeconds(clip.from, 2)}` : `Its last picture, of ${formatSeconds(end, 2)}`;
  });
}

function buildPicture(figure, clip) {
  const name = nameOf(clip.type);
  const zoomBy = makeZoom(figure, clip.element.parentElement);
  markForeign(figure, clip, make(figure, "p", { class: "note", hidden: "" }));
  const tools = make(figure, "div", { class: "tools" });
  const add = (text, label, action) => {
    const button = make(tools, "button", { type: "button", title: label, "aria-label": label }, text);
    button.addEventListener("click", action);
    return button;
  };
  const smaller = add("−", `${name}: smaller`, () => { smaller.disabled = zoomBy(2 / 3) === 1; });
  add("+", `${name}: larger`, () => { smaller.disabled = zoomBy(1.5) === 1; });
  smaller.disabled = true;
  if (!document.fullscreenEnabled) return;
  add("Full screen", `${name}: full screen`, () => (document.fullscreenElement ? document.exitFullscreen() : figure.requestFullscreen()));
}
