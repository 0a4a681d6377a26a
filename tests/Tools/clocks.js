// Reads the clocks that the simulated cameras have filmed off what is seen of each clip while it plays: window.clocks gets
// [milliseconds of the day of camera 1, of camera 0] for each picture of the browser in which both can be read.
const glyphs = ["0E11131519110E", "040C040404040E", "0E11010204081F", "1F02040201110E", "02060A121F0202", "1F101E0101110E",
  "0608101E11110E", "1F010204080808", "0E11110E11110E", "0E11110F01020C"];
// 12 characters of 5 by 7 dots and a gap each, two points a dot.
const [width, height] = [142, 14];
const canvas = Object.assign(document.createElement("canvas"), { width, height });
const context = canvas.getContext("2d", { willReadFrequently: true });

function digitAt(points, place) {
  const isLit = (x, y) => {
    const at = (dx, dy) => points[((2 * y + dy) * width + 2 * x + dx) * 4 + 1];
    return at(0, 0) + at(1, 0) + at(0, 1) + at(1, 1) > 4 * 128;
  };
  const row = (y) => [0, 1, 2, 3, 4].reduce((bits, x) => bits * 2 + isLit(place * 6 + x, y), 0);
  return glyphs.indexOf([0, 1, 2, 3, 4, 5, 6].map((y) => row(y).toString(16).toUpperCase().padStart(2, "0")).join(""));
}

// Null where there is none: at each full second the cameras see nothing but light.
function readClock(picture) {
  const scale = (picture.videoWidth || picture.width) / 1280;
  context.drawImage(picture, 214 * scale, 160 * scale, 71 * 12 * scale, 7 * 12 * scale, 0, 0, width, height);
  const points = context.getImageData(0, 0, width, height).data;
  const digits = [0, 1, 3, 4, 6, 7, 9, 10, 11].map((place) => digitAt(points, place));
  if (digits.includes(-1)) return null;
  const [h, H, m, M, s, S, ...ms] = digits;
  return (((h * 10 + H) * 60 + m * 10 + M) * 60 + s * 10 + S) * 1000 + Number(ms.join(""));
}

window.clocks = [];
(function look() {
  const screens = ["VideoCamera1", "VideoCamera0"].map((id) => document.querySelector(`#${id} .screen`));
  const both = screens.map((screen) => screen.querySelector("canvas.shown") ?? screen.querySelector("video"));
  const isPlaying = screens.every((screen) => !screen.querySelector("video").paused);
  const read = isPlaying ? both.map(readClock) : [null];
  if (!read.includes(null)) window.clocks.push(read);
  requestAnimationFrame(look);
})();
