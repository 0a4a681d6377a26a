import {$, ask, element, followStatus, showAway, sleep} from "./common.js";

function flatten(value, name, rows) {
  if (value !== null && typeof value === "object" && !Array.isArray(value)) {
    for (const [key, inner] of Object.entries(value)) flatten(inner, name ? `${name}.${key}` : key, rows);
  } else {
    rows.push([name, value === "" ? "(empty)" : String(value)]);
  }
}

function showSettings(settings) {
  $("groups").replaceChildren(...Object.entries(settings).map(([group, value]) => {
    const rows = [];
    flatten(value, group, rows);
    const body = element("tbody", {}, ...rows.map(([name, text]) =>
      element("tr", {}, element("th", {scope: "row"}, name), element("td", {}, text))));
    if (rows.length === 1) return element("table", {}, body);
    return element("details", {open: group === "pipeline"}, element("summary", {}, group), element("table", {}, body));
  }));
}

function show({settings, problems}) {
  $("all-well").textContent = problems.length === 0 ? "Nothing: all sources deliver, events can be saved and are signed." : "";
  $("problems").replaceChildren(...problems.map((problem) => element("li", {className: "alarm"}, problem)));
  const text = JSON.stringify(settings);
  if (show.last !== text) showSettings(settings);
  show.last = text;
}

followStatus();
for (;;) {
  try {
    show(await ask("/api/settings"));
  } catch (error) {
    $("all-well").textContent = "Not known while the recorder does not answer.";
    $("problems").replaceChildren();
    showAway(error);
  }
  await sleep(5000);
}
