import {$, ask, Away, element, formatPosition, formatSpeed, formatTime, showAway, showState, sleep} from "./common.js";
import {choosePresent, Player, readMessages} from "./media.js";
import {drawAcceleration, drawTrack} from "./plots.js";

const TRACK_SECONDS = 300;
const ACC_SECONDS = 30;

const videos = [$("video0"), $("video1")];
const sound = element("audio", {muted: true});
const fixes = [];
const samples = [];
let players = [];
let status = null;
let isDirty = false;
let again = null;

const noteOf = (index) => videos[index].parentElement.querySelector(".note");
const decode = (bytes) => new TextDecoder().decode(bytes);

function makePlayers() {
  for (const player of players) player.close();
  players = [...videos, sound].map((media, index) => new Player(media, (fault, isOver) => {
    if (index < 2) noteOf(index).textContent = fault;
    // What a decoder has stumbled over is over with the next stream.
    if (isOver) again?.abort();
  }));
}

// An init segment behind its type, which has its length before it.
function takeInit(player, payload, build) {
  const length = payload[0];
  player.setType(build(decode(payload.subarray(1, 1 + length))));
  if (payload.length > 1 + length) player.append(payload.slice(1 + length));
}

function takeSound(payload) {
  const at = new DataView(payload.buffer, payload.byteOffset).getFloat64(0);
  players[2].append(payload.slice(8), at);
}

function takeJson(json) {
  if (json.status) showStatus(json.status);
  if (json.live) showNames(json.live.streams ?? []);
  if (json.gps) takeFix(json.gps, json.t);
  if (json.acc) takeAcceleration(json.acc, json.t);
  if (json.other) showMachine(json.other);
  if (json.level) showLevel(json.level);
  if (json.recorder === "gone") showAway(new Away(`The recorder does not answer: ${json.reason}.`));
  if (json.recorder === "back") showAway(null);
}

function take({kind, payload}) {
  const video = (codec) => `video/mp4; codecs="${codec}"`;
  if (kind === 0) takeJson(JSON.parse(decode(payload)));
  if (kind === 1 || kind === 3) takeInit(players[(kind - 1) / 2], payload, video);
  if (kind === 2 || kind === 4) players[kind / 2 - 1].append(payload.slice());
  if (kind === 5) takeInit(players[2], payload, (type) => type);
  if (kind === 6) takeSound(payload);
}

function showNames(streams) {
  for (const stream of streams) {
    const index = ["camera0", "camera1"].indexOf(stream.stream);
    if (index < 0) continue;
    const name = stream.name || `camera ${index}`;
    videos[index].parentElement.querySelector("figcaption").textContent = name;
    videos[index].setAttribute("aria-label", `${stream.name || `Camera ${index}`}, live`);
  }
}

function takeFix(fix, t) {
  if (!fix.valid) {
    $("position").textContent = "no valid fix";
    return;
  }
  fixes.push({t, latitude: fix.latitude, longitude: fix.longitude});
  while (fixes.length && (fixes[0].t < t - TRACK_SECONDS || fixes[0].t > t)) fixes.shift();
  $("position").textContent = `${formatPosition(fix)}, ${formatSpeed(fix.speedKnots)}${fix.satellites ? `, ${fix.satellites} satellites` : ""}`;
  isDirty = true;
}

function takeAcceleration(block, t) {
  const before = samples.length ? samples.at(-1).t : t;
  const step = t > before && t - before < 1 ? (t - before) / block.samples.length : 0.01;
  block.samples.forEach((g, i) => samples.push({t: t - (block.samples.length - 1 - i) * step, g}));
  while (samples.length && (samples[0].t < t - ACC_SECONDS || samples[0].t > t)) samples.shift();
  const now = block.samples.at(-1);
  if (now) ["x", "y", "z"].forEach((axis, i) => { $(`acc-${axis}`).textContent = `${axis.toUpperCase()} ${now[i].toFixed(2)} g`; });
  isDirty = true;
}

function showMachine(other) {
  $("load").textContent = `${other.cpuPercent} %`;
  $("temperature").textContent = other.temperatureCelsius === undefined ? "not known" : `${other.temperatureCelsius} °C`;
}

function showLevel({peakDbfs, rmsDbfs}) {
  $("level").value = Math.max(-60, rmsDbfs);
  $("level-text").textContent = `${rmsDbfs.toFixed(0)} dB on average, ${peakDbfs.toFixed(0)} dB at the peak`;
}

const SOURCES = {camera0: "camera 0", camera1: "camera 1", audio: "sound", gps: "receiver", acc: "accelerometer", other: "processor",
  preview0: "preview of camera 0", preview1: "preview of camera 1"};

function describeSource(source) {
  const words = {running: `delivers ${source.rate.toFixed(1)} a second`, starting: "is starting", stopped: "is stopped",
    silent: "is silent", missing: "is missing"}[source.state] ?? source.state;
  return source.problem ? `${words}: ${source.problem}` : words;
}

function showStatus(now) {
  status = now;
  showState(now);
  const rows = Object.entries(now.sources).flatMap(([key, source]) => {
    const isWrong = ["silent", "missing"].includes(source.state) || source.problem;
    return [element("dt", {}, source.name && !key.startsWith("preview") ? source.name : SOURCES[key] ?? key), element("dd", {className: isWrong ? "alarm" : ""}, describeSource(source))];
  });
  $("sources").replaceChildren(...rows);
  for (const [index, key] of ["camera0", "camera1"].entries()) {
    if (!now.sources[key]) noteOf(index).textContent = "this camera is not switched on";
  }
}

function follow() {
  const present = choosePresent(players.slice(0, 2));
  for (const player of players.slice(0, 2)) player.follow(present);
  if (!sound.muted) players[2].follow(present < 0 ? players[2].getEnd() - 0.25 : present);
  for (const index of [0, 1]) {
    const isMoving = videos[index].currentTime > 0 && !videos[index].paused && players[index].getEnd() - present < 2;
    if (isMoving) noteOf(index).textContent = "";
    else if (noteOf(index).textContent === "") noteOf(index).textContent = "waiting for pictures";
  }
  if (isDirty) {
    drawTrack($("track"), fixes);
    drawAcceleration($("acceleration"), samples, ACC_SECONDS);
  }
  isDirty = false;
}

async function watch() {
  for (let pause = 500; ; pause = Math.min(pause * 2, 5000)) {
    again = new AbortController();
    try {
      const answer = await fetch("/api/live", {headers: {"X-Tavi-Console": "1"}, signal: again.signal});
      if (answer.status === 401) location.assign("/login");
      if (!answer.ok) throw new Error((await answer.json()).error);
      makePlayers();
      showAway(null);
      for await (const message of readMessages(answer.body)) {
        take(message);
        pause = 500;
      }
      throw new Error("The console does not answer.");
    } catch (error) {
      if (error.name !== "AbortError") showAway(new Away(error.message === "network error" || error instanceof TypeError ? "The console does not answer." : error.message));
    }
    await sleep(pause);
  }
}

// Follows one event until it is on the disk, or it is known that it will not be.
async function followEvent(id, item, seconds) {
  const bar = element("progress", {max: 1, value: 0, "aria-label": `Progress of event ${id}`});
  const words = element("span", {}, "is being recorded");
  item.replaceChildren(`Event ${id} `, words, bar);
  const begun = performance.now();
  for (;;) {
    await sleep(500);
    const part = seconds > 0 ? (performance.now() - begun) / 1000 / seconds : 1;
    bar.value = Math.min(part, 0.95);
    if (part >= 1) words.textContent = "is being saved";
    const list = await ask(`/api/events?limit=5&q=${id}`).catch(() => null);
    const done = list?.events.find((event) => event.id === id);
    if (done) return showComplete(item, done);
    const settled = status?.lastEvent;
    if (settled?.event === id && !settled.saved) {
      item.replaceChildren(element("span", {className: "alarm"}, `Event ${id}: ${settled.error}`));
      if (!settled.waits) return;
    }
  }
}

function showComplete(item, event) {
  const missing = event.missing?.length ? `, but something is missing: ${event.missing.map((part) => part.part).join(", ")}` : "";
  item.replaceChildren("Event ", element("a", {href: `/events/${event.id}/`}, event.label || event.id),
    ` of ${event.time ? formatTime(event.time) : event.directory} is complete${missing}`);
}

$("take").addEventListener("submit", async (submit) => {
  submit.preventDefault();
  const item = element("li", {}, "Asking the recorder");
  $("taken").prepend(item);
  try {
    const label = $("take-label").value;
    const taken = await ask("/api/event", {method: "POST", body: label ? {label} : {}});
    $("take-label").value = "";
    const {settings} = await ask("/api/settings").catch(() => ({settings: {events: {startSeconds: -15, durationSeconds: 30}}}));
    await followEvent(taken.event, item, settings.events.startSeconds + settings.events.durationSeconds);
  } catch (error) {
    item.replaceChildren(element("span", {className: "alarm"}, error.message));
  }
});

$("sound").addEventListener("click", () => {
  sound.muted = !sound.muted;
  $("sound").setAttribute("aria-pressed", String(!sound.muted));
  $("sound").textContent = sound.muted ? "Listen" : "Listening";
  if (sound.muted) sound.pause();
});

makePlayers();
setInterval(follow, 100);
watch();
