import {$, ask, Away, element, followStatus, formatBytes, formatPosition, formatSpeed, formatTime, formatTrigger, showAway} from "./common.js";

const SIZE = 50;
const FILTERS = ["q", "trigger", "from", "to", "protected", "missing", "sort", "order"];
let offset = 0;
let last = "";
let chosen = null;
let turn = 0;

function buildPath() {
  const query = new URLSearchParams();
  for (const name of FILTERS) if ($(name).value !== "") query.set(name, $(name).value);
  return [`/api/events?${query}&offset=${offset}&limit=${SIZE}`, query];
}

const titleOf = (event) => event.laterLabel || event.label || (event.time ? `Event ${event.id}` : event.directory);

function describeFacts(event) {
  const fact = (name, value) => element("span", {}, `${name} `, element("b", {}, value));
  return [
    fact("trigger", formatTrigger(event.trigger)),
    fact("length", `${Math.round(event.seconds)} s`),
    event.maxSpeedKnots === null ? "" : fact("up to", formatSpeed(event.maxSpeedKnots)),
    event.maxG === null ? "" : fact("peak", `${event.maxG.toFixed(2)} g`),
    event.position ? fact("at", formatPosition(event.position)) : fact("place", "not known"),
    fact("size", formatBytes(event.bytes)),
  ];
}

function describeFaults(event) {
  const faults = event.missing.map((part) => `${part.part}: ${part.reason}${part.seconds > 0 ? ` (${part.seconds.toFixed(1)} s)` : ""}`);
  if (event.interrupted) faults.unshift("interrupted");
  if (!event.signed) faults.push("not signed");
  return faults.length === 0 ? "" : element("p", {className: "alarm"}, `${event.missing.length ? "Missing: " : ""}${faults.join("; ")}`);
}

function buildText(event) {
  const link = element("a", {href: `/events/${event.id}/`}, titleOf(event));
  if (!event.time) return element("div", {}, element("h2", {}, link), element("p", {className: "alarm"}, `Its description cannot be read: ${event.problem}`));
  const also = event.laterLabel ? element("p", {className: "quiet"}, `label added later${event.label ? `; at the request: ${event.label}` : ""}`) : "";
  const time = element("p", {}, element("time", {dateTime: event.time}, formatTime(event.time)), event.timeSource === "system" ? " (system's clock)" : "");
  return element("div", {}, element("h2", {}, link), time, also, element("p", {className: "facts"}, ...describeFacts(event)), describeFaults(event));
}

function buildActs(event) {
  const name = titleOf(event);
  const button = (text, act, more = {}) => {
    const made = element("button", {type: "button", "aria-label": `${text} ${name}`, ...more}, text);
    made.dataset.act = text;
    made.addEventListener("click", act);
    return made;
  };
  return element("div", {className: "acts"},
    button(event.protected ? "Protected" : "Protect", () => protect(event), {"aria-pressed": String(event.protected)}),
    button("Label", () => openLabel(event)),
    element("a", {href: `/api/events/${event.id}/archive`, download: "", "aria-label": `Download ${name}`}, "Download"),
    button("Delete", () => openDelete(event)));
}

function buildEvent(event) {
  const still = event.still
    ? element("img", {src: `/events/${event.id}/${encodeURIComponent(event.still)}`, alt: "", loading: "lazy", width: 160, height: 90})
    : element("span", {className: "still"});
  const item = element("li", {className: "panel event"}, still, buildText(event), buildActs(event));
  item.dataset.id = event.id;
  return item;
}

function show(list) {
  const events = list.events;
  $("count").textContent = list.problem || `${list.matching === list.total ? "" : `${list.matching} of `}${list.total} event${list.total === 1 ? "" : "s"}${list.looking ? ", still looking" : ""}`;
  $("pages").hidden = list.matching <= SIZE;
  $("part").textContent = `${Math.min(offset + 1, list.matching)} to ${offset + events.length} of ${list.matching}`;
  $("before").disabled = offset === 0;
  $("after").disabled = offset + events.length >= list.matching;
  const text = JSON.stringify(events);
  if (text === last) return;
  last = text;
  // Whoever is on a button stays on it.
  const active = document.activeElement?.closest?.("#events li");
  const [id, act] = [active?.dataset.id, document.activeElement?.dataset.act];
  $("events").replaceChildren(...events.map(buildEvent));
  const again = id && document.querySelector(`#events li[data-id="${id}"]`);
  if (again) (act ? [...again.querySelectorAll("button")].find((b) => b.dataset.act.slice(0, 7) === act.slice(0, 7)) : again.querySelector("a"))?.focus();
}

async function load() {
  const mine = ++turn;
  const [path, query] = buildPath();
  try {
    const list = await ask(path);
    if (mine !== turn) return;
    if (offset > 0 && offset >= list.matching) {
      offset = 0;
      return load();
    }
    show(list);
    history.replaceState(null, "", `?${query}`);
  } catch (error) {
    if (mine !== turn) return;
    if (error instanceof Away) showAway(error);
    else $("count").textContent = error.message;
  }
}

async function protect(event) {
  try {
    await ask(`/api/events/${event.id}/protect`, {method: "POST", body: {protected: !event.protected}});
  } catch (error) {
    $("count").textContent = error.message;
    return;
  }
  await load();
}

function openDelete(event) {
  chosen = event;
  $("delete-what").textContent = `${titleOf(event)}, ${event.time ? formatTime(event.time) : event.id}${event.protected ? ". It is protected; it is deleted all the same." : ""}`;
  $("delete-problem").textContent = "";
  $("delete").showModal();
}

function openLabel(event) {
  chosen = event;
  $("label-first").textContent = event.label ? `At the request: ${event.label}` : "The request had no label.";
  $("label-text").value = event.laterLabel ?? "";
  $("label-problem").textContent = "";
  $("label").showModal();
  $("label-text").focus();
}

$("delete-yes").addEventListener("click", async () => {
  try {
    await ask(`/api/events/${chosen.id}`, {method: "DELETE", body: chosen.protected ? {evenProtected: true} : {}});
    $("delete").close();
    await load();
    $("count").focus();
  } catch (error) {
    $("delete-problem").textContent = error.message;
  }
});

$("label").querySelector("form").addEventListener("submit", async (submit) => {
  submit.preventDefault();
  try {
    await ask(`/api/events/${chosen.id}/label`, {method: "POST", body: {label: $("label-text").value}});
    $("label").close();
    await load();
  } catch (error) {
    $("label-problem").textContent = error.message;
  }
});
$("label-no").addEventListener("click", () => $("label").close());

const wanted = new URLSearchParams(location.search);
for (const name of FILTERS) if (wanted.has(name)) $(name).value = wanted.get(name);
$("filters").addEventListener("input", () => {
  offset = 0;
  load();
});
$("filters").addEventListener("submit", (submit) => submit.preventDefault());
$("before").addEventListener("click", () => { offset = Math.max(0, offset - SIZE); load(); });
$("after").addEventListener("click", () => { offset += SIZE; load(); });

await load();
// While the recorder is away the list stays what it was: its files are there all the same.
followStatus();
setInterval(() => { if (!document.hidden) load(); }, 3000);
