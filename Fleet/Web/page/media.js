// Live pictures and sound out of the console's messages, by Media Source Extensions.

const BEHIND = 0.25;      // seconds that are shown behind the newest: what a network's hiccup may take
const FAR = 0.4;          // off by more, a player jumps; below that it hurries or dawdles
const KEPT = 20;          // seconds that stay behind the present moment

// One element with one buffer; takes init segments and fragments in whatever order they come.
export class Player {
  constructor(video, onFault) {
    this.video = video;
    this.onFault = onFault;
    this.queue = [];
    this.buffer = null;
    this.type = "";
  }

  setType(type) {
    if (this.type === type) return;
    this.type = type;
    if (!window.MediaSource?.isTypeSupported(type)) {
      this.onFault(`this browser cannot show ${type}`, false);
      this.type = "";
      return;
    }
    if (this.buffer) return void this.queue.push({change: type});
    const source = new MediaSource();
    this.source = source;
    this.url = URL.createObjectURL(source);
    this.video.src = this.url;
    source.addEventListener("sourceopen", () => {
      if (this.source !== source || this.buffer) return;
      this.buffer = source.addSourceBuffer(this.type);
      this.buffer.addEventListener("updateend", () => this.proceed());
      this.buffer.addEventListener("error", () => this.onFault("the pictures cannot be decoded", true));
      this.proceed();
    });
  }

  append(bytes, at) {
    if (!this.type) return;
    this.queue.push({bytes, at});
    this.proceed();
  }

  proceed() {
    if (!this.buffer || this.buffer.updating || this.queue.length === 0) return;
    const {change, bytes, at} = this.queue.shift();
    try {
      if (change) {
        this.buffer.changeType(change);
        return this.proceed();
      }
      // Frames without times of their own begin where the last ones end, or at their time when that is elsewhere.
      if (at !== undefined && Math.abs(at - this.getEnd()) > 0.1) {
        this.buffer.abort();
        this.buffer.timestampOffset = at;
      }
      this.buffer.appendBuffer(bytes);
      this.trim();
    } catch (error) {
      this.onFault(String(error), true);
    }
  }

  trim() {
    const begin = this.video.currentTime - KEPT;
    const ranges = this.buffer.buffered;
    if (this.buffer.updating || ranges.length === 0 || ranges.start(0) > begin - KEPT) return;
    this.buffer.remove(0, begin);
  }

  getEnd() {
    const ranges = this.buffer?.buffered;
    return ranges?.length ? ranges.end(ranges.length - 1) : -1;
  }

  // Keeps to the moment `at`, which is the same for all that are shown together.
  follow(at) {
    const {video} = this;
    const end = this.getEnd();
    if (end < 0) return;
    const ranges = this.buffer.buffered;
    const first = ranges.start(ranges.length - 1);
    const goal = Math.max(first, Math.min(at, end - 0.05));
    const off = goal - video.currentTime;
    if (Math.abs(off) > FAR) video.currentTime = goal;
    video.playbackRate = Math.abs(off) > FAR ? 1 : 1 + Math.max(-0.2, Math.min(0.2, off));
    if (video.paused) video.play().catch(() => {});
  }

  close() {
    this.video.pause();
    this.video.removeAttribute("src");
    this.video.load();
    URL.revokeObjectURL(this.url);
    [this.buffer, this.source, this.type, this.queue] = [null, null, "", []];
  }
}

// The moment that all players show: a little behind the one that has the least, unless that one has stopped.
export function choosePresent(players) {
  const ends = players.map((player) => player.getEnd()).filter((end) => end >= 0);
  if (ends.length === 0) return -1;
  const newest = Math.max(...ends);
  return Math.min(...ends.filter((end) => newest - end < 2)) - BEHIND;
}

// The messages of a stream: one byte kind, four bytes length, payload.
export async function* readMessages(body) {
  const reader = body.getReader();
  let pending = new Uint8Array(0);
  for (;;) {
    const {done, value} = await reader.read();
    if (done) return;
    const joined = new Uint8Array(pending.length + value.length);
    joined.set(pending);
    joined.set(value, pending.length);
    let at = 0;
    while (joined.length - at >= 5) {
      const view = new DataView(joined.buffer, at);
      const size = view.getUint32(1);
      if (joined.length - at - 5 < size) break;
      yield {kind: view.getUint8(0), payload: joined.subarray(at + 5, at + 5 + size)};
      at += 5 + size;
    }
    pending = joined.slice(at);
  }
}
