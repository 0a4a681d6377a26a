// What all pages of the console share.
export const $ = (id) => document.getElementById(id);

export class Away extends Error {}

// Asks the console. Throws what it refuses with as a sentence; Away when it or the recorder does not answer.
export async function ask(path, {method = "GET", body} = {}) {
  let answer;
  try {
    const headers = {"X-Tavi-Console": "1"};
    if (body !== undefined) headers["Content-Type"] = "application/json";
    answer = await fetch(path, {method, headers, body: body === undefined ? undefined : JSON.stringify(body)});
  } catch {
    throw new Away("The console does not answer.");
  }
  if (answer.status === 401 && location.pathname !== "/login") location.assign("/login");
  const json = await answer.json().catch(() => ({error: `the console answers with ${answer.status}`}));
  if (json.recorder === "away") throw new Away(`The recorder does not answer: ${json.error}`);
  if (!answer.ok) throw new Error(json.error);
  return json;
}

// Shows why nothing new comes, or that it does again.
export function showAway(error) {
  const text = error ? `${error.message} This page goes on as soon as it is back.` : "";
  if ($("away").textContent !== text) $("away").textContent = text;
  $("away").hidden = !error;
}

export function element(name, properties = {}, ...children) {
  const made = document.createElement(name);
  for (const [key, value] of Object.entries(properties)) {
    if (key in made) made[key] = value;
    else made.setAttribute(key, value);
  }
  made.append(...children.filter((child) => child !== null && child !== ""));
  return made;
}

export const sleep = (ms) => new Promise((done) => setTimeout(done, ms));

export const KMH_PER_KNOT = 1.852;
export const formatTime = (time) => `${time.slice(0, 10)} ${time.slice(11, 19)} UTC`;
export const formatBytes = (bytes) => bytes >= 1e9 ? `${(bytes / 1e9).toFixed(1)} GB` : bytes >= 1e6 ? `${(bytes / 1e6).toFixed(1)} MB` : `${Math.ceil(bytes / 1e3)} kB`;
export const formatSpeed = (knots) => `${Math.round(knots * KMH_PER_KNOT)} km/h`;
export const formatPosition = (p) => `${p.latitude.toFixed(5)}, ${p.longitude.toFixed(5)}`;
const TRIGGERS = {request: "on request", acceleration: "by acceleration", recovery: "recovered"};
export const formatTrigger = (trigger) => TRIGGERS[trigger] ?? trigger;

export function showState(status) {
  $("state").textContent = `${status.state}${status.ignition === "off" ? ", ignition off" : ""} · ${status.clock.time.slice(11, 19)} UTC${status.clock.timeSource === "system" ? " (system's clock)" : ""}`;
}

// The recorder's state on top of the page, once in two seconds, whatever happens.
export async function followStatus(take = () => {}) {
  for (;;) {
    try {
      const status = await ask("/api/status");
      showState(status);
      take(status);
      showAway(null);
    } catch (error) {
      $("state").textContent = "not connected";
      showAway(error);
    }
    await sleep(2000);
  }
}

if ($("logout")) {
  $("logout").hidden = !sessionStorage.getItem("loggedIn");
  $("logout").addEventListener("click", async () => {
    await ask("/api/logout", {method: "POST"}).catch(() => {});
    sessionStorage.removeItem("loggedIn");
    location.assign("/login");
  });
}
