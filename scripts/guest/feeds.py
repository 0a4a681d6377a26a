"""What the devices of an emulated machine give while it runs: a receiver's sentences, and a tick a second in the sound card.

As a program it is given the port to write into, perhaps the one that is read, and feeds the receiver until it is killed.
"""
import array
import glob
import math
import os
import subprocess
import sys
import time
import wave

RATE = 44100


def sentence(body):
    total = 0
    for letter in body:
        total ^= ord(letter)
    return f"${body}*{total:02X}\r\n"


def is_open(device):
    """Whether somebody reads a port. What is sent to one that nobody reads is lost on a unit, and would be kept here."""
    return any(os.path.realpath(file) == device for file in glob.glob("/proc/[0-9]*/fd/*"))


def feed_receiver(path, device=None):
    """A fix at the beginning of each second of the machine's clock, while somebody reads the port DEVICE, always without it.
    /run/noise: a line full of noise in its place."""
    feed = os.open(path, os.O_WRONLY | os.O_NOCTTY)
    number = 0
    while True:
        second = int(time.time()) + 1
        while time.time() < second:
            time.sleep(max(0.0, second - time.time()))  # it may have come since the look
        if device is not None and not is_open(device):
            continue
        now = time.gmtime(second)
        number = (number + 1) % 600
        place = f"{4807 + number / 1000:08.3f},N,{1131 + number / 500:09.3f},E"
        text = sentence(f"GPGGA,{time.strftime('%H%M%S.00', now)},{place},1,08,0.9,545.4,M,46.9,M,,")
        text += sentence(f"GPRMC,{time.strftime('%H%M%S.00', now)},A,{place},{10 + number % 40:05.1f},084.4,"
                         f"{time.strftime('%d%m%y', now)},003.1,W")
        os.write(feed, os.urandom(400) if os.path.exists("/run/noise") else text.encode())


def play(seconds=600):
    """A short tone at each full second of the card's clock, silence between; so many of them, again and again."""
    with wave.open("/run/tone.wav", "wb") as file:
        file.setnchannels(2)
        file.setsampwidth(2)
        file.setframerate(RATE)
        second = array.array("h", bytes(RATE * 4))
        for index in range(RATE // 20):
            second[2 * index] = second[2 * index + 1] = int(12000 * math.sin(2 * math.pi * 3000 * index / RATE))
        for _ in range(seconds):
            file.writeframes(second.tobytes())
    while True:
        subprocess.run(["aplay", "-q", "-D", "hw:0,1", "/run/tone.wav"], stderr=subprocess.DEVNULL, check=False)
        time.sleep(1)


if __name__ == "__main__":
    feed_receiver(*sys.argv[1:])
