// Pictures in pairs. A busy browser shows each clip's pictures when it gets round to them, one clip's later than the other's.
// So while both play, the last pictures of each are kept, and those are shown that belong together.

// A second of a usual camera's would be 70 MB; a quarter of one is more than the clips come apart.
const picturesKept = 8;

// Each picture is {canvas, time}, oldest first; `time` in seconds relative to the event.
function keepPictures(clip, screen) {
  const { element } = clip;
  clip.pictures = [];
  if (!element.requestVideoFrameCallback) return;
  const canvases = Array.from({ length: picturesKept }, () => make(screen, "canvas", { "aria-hidden": "true" }));
  const look = (now, { mediaTime }) => {
    measureDelay(clip, mediaTime);
    if (playing && clips.length > 1) keep(clip, canvases, clip.from + mediaTime);
    element.requestVideoFrameCallback(look);
  };
  element.requestVideoFrameCallback(look);
}

function keep({ element, pictures }, canvases, time) {
  const canvas = pictures.length < picturesKept ? canvases.find((candidate) => !pictures.some((picture) => picture.canvas === candidate))
    : pictures.shift().canvas;
  canvas.classList.remove("shown");
  // As many points as are seen, which in a small window are much fewer than the clip has.
  const seen = element.closest("figure").classList.contains("zoomed") ? Infinity : element.clientWidth * devicePixelRatio;
  const scale = Math.min(1, seen / element.videoWidth);
  const [width, height] = [Math.round(element.videoWidth * scale), Math.round(element.videoHeight * scale)];
  if (canvas.width !== width || canvas.height !== height) Object.assign(canvas, { width, height });
  canvas.getContext("2d", { alpha: false }).drawImage(element, 0, 0, width, height);
  canvas.dataset.time = time;
  pictures.push({ canvas, time });
}

function dropPictures(clip) {
  for (const { canvas } of clip.pictures ?? []) canvas.classList.remove("shown");
  if (clip.pictures) clip.pictures.length = 0;
}

// The newest two that are no further apart than a picture lasts; where a busy browser has left too many out, the two that are
// nearest to each other.
function choosePair([one, other]) {
  const near = Math.max(intervalOf(one), intervalOf(other)) + 1e-3;
  let best = null;
  for (const picture of [...one.pictures].reverse()) {
    for (const match of [...other.pictures].reverse()) {
      const distance = Math.abs(picture.time - match.time);
      if (distance < (best?.distance ?? Infinity)) best = { distance, chosen: [picture, match] };
      if (best.distance <= near) return best.chosen;
    }
  }
  return best.chosen;
}

function showPairs() {
  const pair = clips.filter((clip) => clip.pictures?.length > 0 && isInside(clip) && !clip.element.ended);
  const chosen = pair.length === 2 ? choosePair(pair) : [];
  for (const clip of clips) {
    if (chosen.length === 0) dropPictures(clip);
    for (const picture of clip.pictures ?? []) picture.canvas.classList.toggle("shown", chosen.includes(picture));
  }
}
