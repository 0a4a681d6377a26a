// Cuts a part out of a clip without encoding anything anew (ISO/IEC 14496-12). The part begins with the key frame before
// it, which an edit list keeps from being shown.

const u32 = (...values) => {
  const bytes = new Uint8Array(values.length * 4);
  values.forEach((value, index) => new DataView(bytes.buffer).setUint32(index * 4, value));
  return bytes;
};
function box(type, ...contents) {
  const size = contents.reduce((sum, bytes) => sum + bytes.length, 8);
  const bytes = new Uint8Array(size);
  bytes.set(u32(size));
  bytes.set([...type].map((c) => c.charCodeAt(0)), 4);
  let at = 8;
  for (const content of contents) {
    bytes.set(content, at);
    at += content.length;
  }
  return bytes;
}

// The boxes of `bytes` by their type; tracks, of which there are several, as a list.
function boxesOf(bytes) {
  const view = new DataView(bytes.buffer, bytes.byteOffset, bytes.length);
  const found = { trak: [] };
  for (let at = 0; at + 8 <= bytes.length;) {
    let [size, head] = [view.getUint32(at), 8];
    if (size === 1) [size, head] = [Number(view.getBigUint64(at + 8)), 16];
    if (size === 0) size = bytes.length - at;
    if (size < head || at + size > bytes.length) throw new Error("the clip is damaged");
    const type = String.fromCharCode(...bytes.subarray(at + 4, at + 8));
    const content = bytes.subarray(at + head, at + size);
    if (type === "trak") found.trak.push(content);
    else found[type] ??= content;
    at += size;
  }
  return found;
}

// A box's numbers of four bytes, behind version and flags.
function numbersOf(bytes) {
  const view = new DataView(bytes.buffer, bytes.byteOffset, bytes.length);
  return Array.from({ length: bytes.length >> 2 }, (_, index) => view.getUint32(index * 4)).slice(1);
}

// [{offset, size, duration, shift, isKey, time}], `time` and `shift` in the track's own units.
function samplesOf(stbl) {
  const [fixed, count, ...sizes] = numbersOf(stbl.stsz);
  const samples = Array.from({ length: count }, (_, index) => ({ size: fixed || sizes[index], shift: 0, isKey: !stbl.stss }));
  const spread = (table, name) => {
    let index = 0;
    for (let i = 1; table && i < table.length; i += 2) {
      for (let run = table[i]; run > 0 && index < count; --run) samples[index++][name] = table[i + 1] | 0;
    }
  };
  spread(numbersOf(stbl.stts), "duration");
  spread(stbl.ctts && numbersOf(stbl.ctts), "shift");
  if (stbl.stss) for (const number of numbersOf(stbl.stss).slice(1)) samples[number - 1].isKey = true;
  placeInChunks(samples, stbl);
  let time = 0;
  for (const sample of samples) {
    sample.time = time;
    time += sample.duration;
  }
  return samples;
}

function placeInChunks(samples, stbl) {
  const wide = stbl.co64 && numbersOf(stbl.co64);
  const chunks = wide ? wide.slice(1).reduce((list, high, i, all) => (i % 2 ? list : [...list, high * 2 ** 32 + all[i + 1]]), [])
    : numbersOf(stbl.stco).slice(1);
  const runs = numbersOf(stbl.stsc);
  let [index, run] = [0, 1];
  chunks.forEach((offset, chunk) => {
    while (run + 3 < runs.length && runs[run + 3] <= chunk + 1) run += 3;
    for (let left = runs[run + 1]; left > 0 && index < samples.length; --left) {
      samples[index].offset = offset;
      offset += samples[index++].size;
    }
  });
}

// Seconds on the clip's time line at which the track's time 0 lies.
function startOf(edts, timescale, movieTimescale) {
  const edits = edts && boxesOf(edts).elst;
  if (!edits) return 0;
  if (edits[0] !== 0) throw new Error("the clip's edit list is of a kind that this page does not know");
  let [, ...list] = numbersOf(edits);
  let empty = 0;
  for (; list.length >= 3 && (list[1] | 0) === -1; list = list.slice(3)) empty += list[0] / movieTimescale;
  return empty - (list.length >= 3 ? list[1] / timescale : 0);
}

function readTrack(trak, movieTimescale) {
  const { tkhd, edts, mdia } = boxesOf(trak);
  const { mdhd, hdlr, minf } = boxesOf(mdia);
  const times = numbersOf(mdhd);
  const timescale = times[mdhd[0] === 1 ? 4 : 2];
  const media = boxesOf(minf);
  return { tkhd, mdhd, hdlr, media, timescale, stbl: boxesOf(media.stbl), samples: samplesOf(boxesOf(media.stbl)),
    start: startOf(edts, timescale, movieTimescale) };
}

// The samples that are shown or heard between the two, from the key frame before the first on; none where there is none.
function choose({ samples, start, timescale }, from, to) {
  const endOf = (sample) => start + (sample.time + sample.shift + sample.duration) / timescale;
  let head = samples.findIndex((sample) => endOf(sample) > from + 1e-6);
  if (head < 0) return [];
  while (head > 0 && !samples[head].isKey) --head;
  const behind = samples.findIndex((sample, index) => index > head && start + (sample.time + sample.shift) / timescale >= to - 1e-6);
  return samples.slice(head, behind < 0 ? samples.length : behind);
}

// A copy with one number changed.
function withNumber(bytes, at, value) {
  const copy = bytes.slice();
  new DataView(copy.buffer).setUint32(at, value);
  return copy;
}
// Runs of [count, value], behind version, flags and number of runs.
function packRuns(values) {
  const runs = [];
  for (const value of values) {
    if (runs.length > 0 && runs[runs.length - 1][1] === value) ++runs[runs.length - 1][0];
    else runs.push([1, value]);
  }
  return u32(0, runs.length, ...runs.flat());
}

// `offset`: of the first sample within the new file.
function writeTrack(track, chosen, { from, to, movieTimescale, offset }) {
  const { tkhd, mdhd, hdlr, media, stbl, timescale, start } = track;
  const movieUnits = (seconds) => Math.max(0, Math.round(seconds * movieTimescale));
  const begins = start + (chosen[0].time + chosen[0].shift) / timescale;
  const edits = [];
  if (begins > from + 1e-6) edits.push([movieUnits(begins - from), 0xffffffff, 0x10000]);
  const skipped = Math.max(0, Math.round((from - start) * timescale) - chosen[0].time);
  const end = Math.min(to, start + (chosen[chosen.length - 1].time + chosen[chosen.length - 1].duration) / timescale);
  edits.push([movieUnits(end - Math.max(from, begins)), begins > from + 1e-6 ? chosen[0].shift : skipped, 0x10000]);
  const duration = chosen.reduce((sum, sample) => sum + sample.duration, 0);
  const keys = chosen.map((sample, index) => (sample.isKey ? index + 1 : 0)).filter(Boolean);
  const tables = [
    box("stsd", stbl.stsd), box("stts", packRuns(chosen.map((sample) => sample.duration))),
    ...(stbl.ctts ? [box("ctts", withNumber(packRuns(chosen.map((sample) => sample.shift)), 0, stbl.ctts[0] << 24))] : []),
    ...(stbl.stss ? [box("stss", u32(0, keys.length, ...keys))] : []),
    box("stsc", u32(0, 1, 1, chosen.length, 1)), box("stsz", u32(0, 0, chosen.length, ...chosen.map((sample) => sample.size))),
    box("stco", u32(0, 1, offset)),
  ];
  const header = media.vmhd ? box("vmhd", media.vmhd) : box("smhd", media.smhd);
  return box("trak", box("tkhd", withNumber(tkhd, tkhd[0] === 1 ? 28 : 20, movieUnits(to - from))),
    box("edts", box("elst", u32(0, edits.length, ...edits.flat()))),
    box("mdia", box("mdhd", withNumber(mdhd, mdhd[0] === 1 ? 28 : 16, duration)), box("hdlr", hdlr),
      box("minf", header, box("dinf", media.dinf), box("stbl", ...tables))));
}

// The part from `from` to `to`, in seconds of the clip, as a list of byte arrays; null where the clip has no picture of
// it. One chunk a track: the files are short.
function cutClip(bytes, from, to) {
  const { ftyp, moov } = boxesOf(bytes);
  const { mvhd, trak } = boxesOf(moov);
  const movieTimescale = numbersOf(mvhd)[mvhd[0] === 1 ? 4 : 2];
  const tracks = trak.map((content) => readTrack(content, movieTimescale)).filter(({ media }) => media.vmhd || media.smhd);
  const begin = Math.max(0, from);
  const parts = tracks.map((track) => ({ track, chosen: choose(track, begin, to) })).filter(({ chosen }) => chosen.length > 0);
  if (to <= begin || !parts.some(({ track }) => track.media.vmhd)) return null;
  const build = (offset) => {
    let at = offset;
    const built = parts.map(({ track, chosen }) => {
      const made = writeTrack(track, chosen, { from: begin, to, movieTimescale, offset: at });
      at += chosen.reduce((sum, sample) => sum + sample.size, 0);
      return made;
    });
    const length = Math.round((to - begin) * movieTimescale);
    return [box("ftyp", ftyp), box("moov", box("mvhd", withNumber(mvhd, mvhd[0] === 1 ? 28 : 16, length)), ...built)];
  };
  // Where the samples lie depends on how long the description is, which does not depend on where they lie.
  const head = build(0).reduce((sum, part) => sum + part.length, 8);
  const data = parts.flatMap(({ chosen }) => chosen.map(({ offset, size }) => bytes.subarray(offset, offset + size)));
  const size = data.reduce((sum, part) => sum + part.length, 8);
  return [...build(head), u32(size), new Uint8Array([0x6d, 0x64, 0x61, 0x74]), ...data];
}
