"""What the recorder has left on a disk, and whether an event of it is right."""
import array
import json
import os
import shutil
import subprocess

SOURCES = ("VideoCamera1", "VideoCamera0", "Audio", "Gps", "Acc", "Other")
# What comes but once a second spans a second less.
TOLERANCE = {"Gps": 1.3, "Other": 1.3}
SOUND_RATE = 16000


def copy_out(image, target):
    """The files of an ext4 image that is not in use, and what e2fsck finds in it."""
    shutil.rmtree(target, ignore_errors=True)
    os.makedirs(target)
    subprocess.run(["debugfs", "-R", f"rdump / {target}", image], capture_output=True, check=True)
    checked = subprocess.run(["e2fsck", "-f", "-n", image], capture_output=True, text=True, check=False)
    return [] if checked.returncode == 0 else checked.stdout.splitlines()


def read_events(target):
    """Directory and description of each event, the oldest first."""
    root = os.path.join(target, "events")
    found = []
    for name in sorted(os.listdir(root)) if os.path.isdir(root) else []:
        if not name.startswith(".") and name != "index.html":
            with open(os.path.join(root, name, "event.json"), encoding="utf-8") as file:
                found.append((os.path.join(root, name), json.load(file)))
    return found


def find_debris(target):
    found = []
    for place in ("power_failure", "power_restore", "events/.recovered"):
        path = os.path.join(target, place)
        found += [os.path.join(place, name) for name in os.listdir(path)] if os.path.isdir(path) else []
    hidden = os.listdir(os.path.join(target, "events"))
    return found + [name for name in hidden if name.startswith(".") and name not in (".lock", ".recovered", ".chain")]


def verify(programs, directory):
    """What tavi-verify finds, in an event or in all of them."""
    done = subprocess.run([os.path.join(programs, "tavi-verify"), directory], capture_output=True, text=True, check=False)
    told = [line for line in done.stdout.splitlines() if ": intact" not in line]
    return [] if done.returncode == 0 else told or [f"tavi-verify: status {done.returncode}, {done.stderr.strip()}"]


def check_event(programs, directory, description):
    """What is not right with an event that had all six sources."""
    found = verify(programs, directory) + [f"missing: {part}" for part in description["missing"]]
    streams = {stream["type"]: stream for stream in description["streams"]}
    begin = description["request"]["startSeconds"]
    end = begin + description["request"]["durationSeconds"]
    for name in SOURCES:
        if name not in streams:
            found.append(f"no {name}")
            continue
        stream, tolerance = streams[name], TOLERANCE.get(name, 0.15)
        if stream["fromSeconds"] > begin + tolerance or stream["toSeconds"] < end - tolerance:
            found.append(f"{name} has {stream['fromSeconds']:.2f} to {stream['toSeconds']:.2f} s of {begin} to {end} s")
        expected = stream["rate"] * (stream["toSeconds"] - stream["fromSeconds"]) + 1
        if abs(stream["entries"] - expected) > max(1.5, 0.05 * expected):
            found.append(f"{name} has {stream['entries']} entries where {expected:.1f} are due")
    files = {file["type"]: os.path.join(directory, file["name"]) for file in description["files"]}
    for name in ("VideoCamera1", "VideoCamera0"):
        if name in files and name in streams:
            found += check_clip(name, files[name], streams[name])
    for name in ("ThumbnailCamera1", "ThumbnailCamera0"):
        found += decode(files[name], "-frames:v", "1") if name in files else [f"no {name}"]
    if "Gps" in files:
        found += check_fixes(files["Gps"], description)
    return found


def decode(path, *options):
    # Each frame at its own time: at a fixed rate two of a camera that was away could fall on one.
    done = subprocess.run(["ffmpeg", "-v", "error", "-xerror", "-i", path, *options, "-vsync", "passthrough",
                           "-enc_time_base", "-1", "-f", "null", "-"], capture_output=True, text=True, check=False)
    return [f"{os.path.basename(path)}: {line}" for line in done.stderr.splitlines()]


def check_clip(name, path, stream):
    """Every frame decodes, they are as many as were stored and as long, and the sound's ticks are a second apart."""
    found = decode(path)
    probed = subprocess.run(["ffprobe", "-v", "error", "-count_frames", "-select_streams", "v", "-show_entries",
                             "stream=nb_read_frames,duration", "-of", "json", path], capture_output=True, check=True)
    video = json.loads(probed.stdout)["streams"][0]
    if int(video["nb_read_frames"]) != stream["entries"]:
        found.append(f"{name}: {video['nb_read_frames']} of {stream['entries']} frames decode")
    seconds = stream["toSeconds"] - stream["fromSeconds"]
    if abs(float(video["duration"]) - seconds) > 2.5 / stream["rate"]:
        found.append(f"{name}: the clip takes {float(video['duration']):.2f} s, its stream {seconds:.2f} s")
    sound = subprocess.run(["ffmpeg", "-v", "error", "-i", path, "-map", "a:0", "-ac", "1", "-ar", str(SOUND_RATE), "-f", "s16le",
                            "-"], capture_output=True, check=False).stdout
    ticks = find_ticks(array.array("h", sound[:len(sound) // 2 * 2]))
    apart = [after - before for before, after in zip(ticks, ticks[1:])]
    if len(ticks) < seconds - 2 or any(abs(distance - 1) > 0.02 for distance in apart):
        found.append(f"{name}: ticks of the sound at {', '.join(f'{tick:.2f}' for tick in ticks)} s")
    return found


def find_ticks(samples):
    """When the tone begins after silence, in seconds."""
    ticks, quiet = [], 0
    for index, sample in enumerate(samples):
        if abs(sample) > 4000:
            if quiet > SOUND_RATE // 2:
                ticks.append(index / SOUND_RATE)
            quiet = 0
        else:
            quiet += 1
    return ticks


def check_fixes(path, description):
    """Each fix is from the beginning of a second, and was stored within the second that followed, by the event's time."""
    found = []
    with open(path, "rb") as file:
        data = file.read()
    with open(f"{path}.times", encoding="ascii") as file:
        arrivals = [int(line.split()[0]) / 1e9 for line in file.read().splitlines()[1:]]
    hours, minutes, seconds = description["time"][11:-1].split(":")
    moment = int(hours) * 3600 + int(minutes) * 60 + float(seconds)
    offset, number = 0, 0
    while offset + 4 <= len(data) and number < len(arrivals):
        length = int.from_bytes(data[offset:offset + 4], "little")
        fields = data[offset + 4:offset + 4 + length].decode(errors="replace").split(",")
        offset += 4 + length
        if length and len(fields) > 2:
            told = int(fields[1][0:2]) * 3600 + int(fields[1][2:4]) * 60 + float(fields[1][4:])
            late = (moment + arrivals[number] - told + 43200) % 86400 - 43200
            if not -0.3 <= late <= 1.3:
                found.append(f"Gps: fix {number} is stored {late:.2f} s after its time")
        number += 1
    return found if number else ["Gps: no fix"]


def list_streams(description):
    """Its streams, as rows for Show: type, entries, and from when to when."""
    return [(stream["type"], stream["entries"], f"{stream['fromSeconds']:.2f}", f"{stream['toSeconds']:.2f}")
            for stream in description["streams"]]


def show(title, head, rows, found):
    """One part of a summary."""
    print(f"\n## {title}\n| {' | '.join(head)} |\n|{'---|' * len(head)}")
    for row in rows:
        print("| " + " | ".join(str(cell) for cell in row) + " |")
    print(f"\n{'; '.join(found[:20]) if found else 'Nothing is wrong.'}", flush=True)
