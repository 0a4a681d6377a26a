"""One table of what scripts/bench.sh has measured: table.py DIRECTORY FIRST_EVENT

DIRECTORY has what the programs printed, FIRST_EVENT is the last result of scripts/first-event.sh. Each row is a figure, its
peer's, their ratio, and MISS where the goal is not met. A measurement that was not taken is said as such.
"""
import json
import os
import re
import statistics
import sys

HEADER = ('what', 'goal', 'figure', 'peer', 'ratio', '')


def read(path):
    """The text of a file; empty when the measurement was not taken."""
    if not os.path.exists(path):
        return ''
    with open(path, encoding='utf-8') as file:
        return file.read()


def numbers(pattern, text):
    """What the pattern's groups are in each place where it is, as numbers."""
    return [tuple(float(group) for group in match.groups()) for match in re.finditer(pattern, text)]


def row(what, value, limit, figure, peer='', ratio=None, goal=None):
    """A row with a goal at most `limit` for `value`; None is no goal."""
    goal = goal or ('' if limit is None else f'at most {limit:g}')
    verdict = 'MISS' if limit is not None and value > limit else ''
    return (what, goal, figure, peer, '' if ratio is None else f'{ratio:.3g}', verdict)


def missing(what, why):
    return (what, '', why, '', '', '')


class Programs:
    """The results of Google Benchmark: medians over the repetitions."""

    def __init__(self, text):
        self.runs = {}
        for run in json.loads(text)['benchmarks']:
            if run['run_type'] == 'iteration' and not run.get('error_occurred'):
                self.runs.setdefault(run['run_name'], []).append(run)

    def find(self, pattern, key):
        """Median of `key` of the benchmark with that name; None when it was left out."""
        for name, runs in self.runs.items():
            if re.match(pattern, name):
                return statistics.median(run[key] for run in runs)
        return None

    def compare(self, what, ours, peer, key, unit, limit, scale=1):
        ours, peer = self.find(ours, key), self.find(peer, key)
        if ours is None or peer is None:
            return missing(what, 'not measured')
        figures = [f'{value * scale:.4g} {unit}' for value in (ours, peer)]
        return row(what, ours / peer, limit, *figures, ours / peer)


def program_rows(text):
    programs = Programs(text)
    ring, mutex = r'Append<TaviRing>/readers:', r'Append<MutexRing>/readers:'
    mux, ffmpeg = 'MuxTavi/sound:', 'MuxFfmpegProgram/sound:'
    time = 'real_time'
    return [
        programs.compare('ring append, mean, alone', ring + '0/', mutex + '0/', time, 'ns', 1.0),
        programs.compare('ring append, mean, 8 readers', ring + '8/', mutex + '8/', time, 'ns', 1.0),
        programs.compare('ring append, 99.9 %, 8 readers', ring + '8/', mutex + '8/', 'p99.9_ns', 'ns', 0.5),
        programs.compare('muxing, picture', mux + '0/', ffmpeg + '0/', time, 'ms', 0.15),
        programs.compare('muxing, picture and sound', mux + '1/', ffmpeg + '1/', time, 'ms', 0.15),
        programs.compare("receiver's text, TZ=UTC", 'NmeaTavi/utc:1', 'NmeaTokenizer', 'per_sentence', 'ns', 2.0, 1e9),
        programs.compare("receiver's text, TZ not set", 'NmeaTavi/utc:0', 'NmeaTokenizer', 'per_sentence', 'ns', 4.0, 1e9),
    ]


def cpu_row(text):
    rounds = numbers(r'library ([\d.]+) s, gst-launch-1.0 ([\d.]+) s .*ratio ([\d.]+)', text)
    ours, peer, ratio = (statistics.median(column) for column in zip(*rounds))
    return row('acquisition, processor time', ratio, 1.03, f'{ours:.2f} s', f'{peer:.2f} s', ratio)


def memory_row(text):
    (resident, rings, ratio), = numbers(r'after 37 s: ([\d.]+) MB resident, ([\d.]+) MB in the rings: ([\d.]+)', text)
    return row('memory above the base', ratio, 1.10, f'{resident:.1f} MB in all', f'{rings:.1f} MB in the rings', ratio)


def event_rows(text):
    def median(name):
        (value, _), = numbers(re.escape(name) + r': +median (\d+) ms, longest (\d+) ms', text)
        return value

    ours, peer = median('complete directory'), median('cp, sync and sha256sum')
    report, base64 = median('tavi-report'), median('base64 of the same files')
    return [
        row("event's end to directory", ours / peer, 1.0, f'{ours:.0f} ms', f'{peer:.0f} ms', ours / peer),
        row('tavi-report', report, 2000, f'{report:.0f} ms', f'{base64:.0f} ms', report / base64, 'at most 2 s'),
    ]


def hold_up_rows(text):
    rows = []
    for case, lines in re.findall(r'^(\S.* when power fails)\n((?:  .*\n)+)', text, re.MULTILINE):
        rounds = numbers(r'  ([\d.]+) ms: collectors .*; cp and sync ([\d.]+) ms', lines)
        ours, peer = (statistics.median(column) for column in zip(*rounds))
        what = 'hold-up, ' + case.replace(' when power fails', '')
        rows.append(row(what, ours, 100, f'{ours:.1f} ms', f'{peer:.1f} ms', ours / peer, 'at most 100 ms'))
    return rows


def sensor_row(text):
    if not text:
        return missing('sound and sensors', 'not measured in a quick run')
    (share, of_cameras), = numbers(r'([\d.]+) % of a core, ([\d.]+) of the cameras', text)
    return row('sound and sensors', share, 1, f'{share:.2f} % of a core', 'the cameras', of_cameras, 'at most 1 %')


def fresh_row(text):
    if not text:
        return missing('first event on a fresh machine', 'never measured here: --first-event')
    seconds, where = re.match(r'(\d+) s (on .*)', text).groups()
    return row('first event on a fresh machine', int(seconds), 240, f'{seconds} s ({where})', goal='at most 240 s')


def main(directory, first_event):
    taken = {name: read(f'{directory}/{name}') for name in os.listdir(directory)}
    rows = [HEADER, cpu_row(taken['cpu.txt']), *program_rows(taken['programs.json']), memory_row(taken['memory.txt']),
            *event_rows(taken['events.txt']), *hold_up_rows(taken['holdup.txt']),
            sensor_row(taken.get('sensors.txt', '')), fresh_row(read(first_event))]
    widths = [max(len(cells[i]) for cells in rows) for i in range(len(HEADER))]
    for cells in rows:
        print('  '.join(cell.ljust(width) for cell, width in zip(cells, widths)).rstrip())


if __name__ == '__main__':
    main(*sys.argv[1:])
