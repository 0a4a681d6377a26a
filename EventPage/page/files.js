// Where the page's media come from: out of the page itself, or from the files beside it.

const beside = (name) => "./" + encodeURIComponent(name);
// The bytes of a clip that the page has, or that the reader has chosen, by type.
const blobs = {};

function decode(element) {
  const binary = atob(element.textContent);
  const bytes = new Uint8Array(binary.length);
  for (let i = 0; i < binary.length; ++i) bytes[i] = binary.charCodeAt(i);
  element.remove();
  return new Blob([bytes], { type: element.dataset.mime });
}
for (const element of document.querySelectorAll("script.media")) blobs[element.dataset.type] = decode(element);
const urls = Object.fromEntries(Object.entries(blobs).map(([type, blob]) => [type, URL.createObjectURL(blob)]));

// Null for what the page cannot show.
function urlOf(type) {
  const file = fileOf(type);
  return urls[type] ?? (isBesideFiles && file ? beside(file.name) : null);
}

// A browser lets a page from a disk show the clips beside it, but not read them.
class NotReadable extends Error {}

async function bytesOf(type) {
  if (blobs[type]) return new Uint8Array(await blobs[type].arrayBuffer());
  if (location.protocol === "file:") throw new NotReadable();
  const answer = await fetch(urlOf(type));
  if (!answer.ok) throw new Error(`${fileOf(type).name}: ${answer.status} ${answer.statusText}`);
  return new Uint8Array(await answer.arrayBuffer());
}

function saveAs(blob, name) {
  const link = make(document.body, "a", { href: URL.createObjectURL(blob), download: name, hidden: "" });
  link.click();
  link.remove();
  setTimeout(() => URL.revokeObjectURL(link.href), 60000);
}

// `retry`: what to do once more when the reader has chosen the clips.
function tell(text, retry) {
  const notice = byId("notice");
  notice.hidden = !text;
  notice.querySelector("p").textContent = text;
  notice.querySelector("button").hidden = !retry;
  notice.querySelector("button").onclick = () => notice.querySelector("input").click();
  notice.querySelector("input").onchange = (change) => { takeChosen(change.target.files); retry(); };
}

function takeChosen(files) {
  for (const { type, element } of clips) {
    const chosen = [...files].find((file) => file.name === fileOf(type)?.name);
    if (!chosen) continue;
    blobs[type] = chosen;
    element.src = URL.createObjectURL(chosen);
  }
  tell("");
}

// Says why something could not be saved.
function explain(error, retry) {
  if (error instanceof NotReadable || error.name === "SecurityError") {
    tell("This page was opened from a disk, where a browser does not let it read the clips beside it. Choose them once " +
      `(${clips.map(({ type }) => fileOf(type).name).join(", ")}), or open the page through a web server.`, retry);
  } else {
    tell(`It could not be saved: ${error.message}`);
  }
}

function formatBytes(bytes) {
  if (bytes >= 1e6) return `${(bytes / 1e6).toFixed(1)} MB`;
  return bytes >= 1e3 ? `${(bytes / 1e3).toFixed(1)} kB` : `${bytes} B`;
}

const isPicture = (type) => type.startsWith("Thumbnail") || type === "PreviewStill";

function buildFiles() {
  byId("about-files").textContent = isBesideFiles ? "They lie in the folder of this page; a name downloads its file."
    : "This page has in itself what it shows: names with a link can be saved from it. The others are in the event's folder.";
  for (const file of event.files) {
    const row = make(document.querySelector("#files tbody"), "tr");
    const stream = streamOf(file.type);
    const content = make(row, "td", {}, nameOf(file.type));
    const url = urlOf(file.type);
    if (url && isPicture(file.type)) make(content, "img", { src: url, alt: "", width: 128, height: 72, loading: "lazy" });
    make(row, "td", {}, stream ? `${formatSeconds(stream.fromSeconds, 2)} to ${formatSeconds(stream.toSeconds, 2)}` : "–");
    make(row, "td", { class: "number" }, formatBytes(file.bytes));
    const cell = make(row, "td");
    if (url) make(cell, "a", { href: url, download: file.name }, file.name);
    else make(cell, "span", {}, file.name);
    make(cell, "br");
    make(cell, "code", {}, file.sha256);
  }
}
