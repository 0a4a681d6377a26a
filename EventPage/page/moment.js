// What the reader takes along: the moment as a picture, a part as clips.

const fileStem = () => `event_${event.id}`;
const forName = (seconds) => (seconds < 0 ? "-" : "+") + Math.abs(seconds).toFixed(2) + "s";
const utcOf = (seconds) => new Date(Date.parse(event.time) + seconds * 1000).toISOString().replace("T", " ").replace("Z", " UTC");

// The moment in one line: when, how fast, how hard, where.
function describeMoment(seconds) {
  const column = (records, index) => records.map((record) => [record[0], record[index] ?? null]);
  const words = [utcOf(seconds), `${formatSeconds(seconds, 2)} from the event`];
  const speed = valueAt(column(gps.records, 3), seconds);
  if (speed !== null) words.push(`${(speed * KmhPerKnot).toFixed(1)} km/h`);
  const axes = [1, 2, 3].map((axis) => valueAt(column(acc.records, axis), seconds));
  if (axes.every((value) => value !== null)) words.push(axes.map((value) => formatTick(value, 2)).join(" / ") + " g (x / y / z)");
  const fix = gps.records[indexAt(gps.records, seconds)];
  if (fix?.length > 1) words.push(formatPlace(fix[1], fix[2]));
  return words.join("   ");
}

// Font as large as the line is wide for.
function writeLine(canvas, text, x, y, width, size) {
  let fitting = size;
  do canvas.font = `${fitting}px system-ui, "DejaVu Sans", sans-serif`;
  while (canvas.measureText(text).width > width && --fitting > 8);
  canvas.fillText(text, x, y, width);
}

function drawMoment() {
  const shown = clips.filter(({ type, element, broken }) => type !== "Audio" && !broken && element.videoWidth > 0);
  if (shown.length === 0) throw new Error("there is no picture");
  const height = Math.max(...shown.map(({ element }) => element.videoHeight));
  const widths = shown.map(({ element }) => Math.round(element.videoWidth * height / element.videoHeight));
  const sheet = document.createElement("canvas");
  sheet.width = widths.reduce((sum, width) => sum + width);
  sheet.height = height + 92;
  const canvas = sheet.getContext("2d");
  canvas.fillStyle = "#fff";
  canvas.fillRect(0, 0, sheet.width, sheet.height);
  let x = 0;
  shown.forEach((clip, index) => {
    canvas.drawImage(clip.element, x, 0, widths[index], height);
    const note = byId(clip.type).querySelector(".note");
    const caption = nameOf(clip.type) + (note.hidden ? "" : `: ${note.textContent}`);
    canvas.font = "24px system-ui, \"DejaVu Sans\", sans-serif";
    canvas.fillStyle = "rgb(0 0 0 / 70%)";
    canvas.fillRect(x, 0, canvas.measureText(caption).width + 32, 40);
    canvas.fillStyle = "#fff";
    writeLine(canvas, caption, x + 16, 28, widths[index] - 32, 24);
    x += widths[index];
  });
  canvas.fillStyle = "#171b21";
  writeLine(canvas, describeMoment(position), 16, height + 36, sheet.width - 32, 26);
  writeLine(canvas, `Event ${event.id}${event.label ? `, ${event.label}` : ""}`, 16, height + 74, sheet.width - 32, 22);
  return sheet;
}

async function savePicture() {
  setPlaying(false);
  const name = `${fileStem()}_${forName(position)}.png`;
  try {
    const sheet = drawMoment();
    const blob = await new Promise((resolve) => sheet.toBlob(resolve, "image/png"));
    saveAs(blob, name);
    tell(`Saved as ${name}.`);
  } catch (error) {
    explain(error, () => whenShown(savePicture));
  }
}

// When the clips that were chosen stand at the position again.
function whenShown(action) {
  const isReady = clips.every(({ element, broken }) => broken || (element.readyState >= 2 && !element.seeking));
  if (isReady) action();
  else setTimeout(() => whenShown(action), 100);
}

let part = { from: null, to: null };

function markPart(from, to) {
  part = { from, to };
  const isWhole = from !== null && to !== null && to - from > 0.05;
  byId("part-save").disabled = !isWhole || !clips.some(({ type, broken }) => type !== "Audio" && !broken);
  byId("part-mark").hidden = !isWhole;
  if (isWhole) placeMark(byId("part-mark"), from, to);
  byId("part-from").textContent = from === null ? "Part from here" : `Part from ${formatSeconds(from)}`;
  byId("part-to").textContent = to === null ? "to here" : `to ${formatSeconds(to)}`;
}

async function savePart() {
  setPlaying(false);
  const names = [];
  try {
    for (const { type, from, broken } of clips) {
      if (broken || type === "Audio") continue;
      const cut = cutClip(await bytesOf(type), part.from - from, part.to - from);
      if (!cut) continue;
      const name = `${fileStem()}_${nameOf(type).replace(/[^\p{L}\p{N}]+/gu, "-")}_${forName(part.from)}_${forName(part.to)}.mp4`;
      saveAs(new Blob(cut, { type: "video/mp4" }), name);
      names.push(name);
    }
    tell(names.length > 0 ? `Saved as ${names.join(" and ")}: the recording itself, not encoded anew.` : "No camera has anything of this part.");
  } catch (error) {
    explain(error, savePart);
  }
}
