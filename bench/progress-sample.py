#!/usr/bin/python3
"""Samples the program's progress bar and the virtual unit's own counts every 250 ms until "Done"
(progress-sample.py LOG PROGRESS_FILE > samples), or reads such samples and prints the largest gap
and the checks (progress-sample.py --gap SAMPLES)."""
import re
import sys
import time

IMAGE = 573088           # the embedded image's bytes
READ_BACK = 573440       # read back in whole 2048-byte blocks
# The program's phase shares (app/upgradeprogress.h): erase, write, restart, read-back.
SHARE = (0.159, 0.782, 0.046, 0.013)
BAR = re.compile(r"Progress: (\d+) %")


def sample(log_path, progress_path):
    last_bar, done, seen = 0, False, 0
    while not done:
        with open(log_path, errors="replace") as log:
            log.seek(seen)
            for line in log:
                m = BAR.search(line)
                if m:
                    last_bar = int(m.group(1))
                if "SM_B: entered B6" in line:
                    done = True
            seen = log.tell()
        try:
            with open(progress_path) as f:
                erased, written, read = (int(x) for x in f.read().split()[:3])
        except (FileNotFoundError, ValueError):
            erased = written = read = 0
        print(f"{time.monotonic():.3f} {100 if done else last_bar} {erased} {written} {read}",
              flush=True)
        time.sleep(0.25)


def gap(samples_path):
    rows = [line.split() for line in open(samples_path)]
    rows = [(float(t), int(b), int(e), int(w), int(r)) for t, b, e, w, r in rows]
    # Phases as the unit shows them: writing until the whole image is written, then the restart
    # until the read-back's first block beyond the information read (2048 bytes), then reading.
    written_at = next((t for t, _, _, w, _ in rows if w >= IMAGE), None)
    read_at = next((t for t, _, _, w, r in rows if written_at and t > written_at and r > 2048),
                   None)
    worst, worst_at, back, early, last = 0.0, "-", 0, 0, 0
    for i, (t, bar, erased, written, read) in enumerate(rows):
        done = i == len(rows) - 1
        if written_at is None or t < written_at:
            phase = "erase" if written == 0 else "write"
            truth = SHARE[0] * min(1.0, erased / IMAGE) + SHARE[1] * written / IMAGE
        elif read_at is None or t < read_at:
            phase = "restart"
            span = (read_at or t) - written_at
            truth = SHARE[0] + SHARE[1] + SHARE[2] * ((t - written_at) / span if span else 0)
        else:
            phase = "read-back"
            truth = sum(SHARE[:3]) + SHARE[3] * min(1.0, read / READ_BACK)
        truth = 1.0 if done else truth
        if abs(bar - 100 * truth) > worst:
            worst, worst_at = abs(bar - 100 * truth), phase
        back |= bar < last
        early |= bar >= 100 and not done
        last = bar
    # The phases' lengths as the unit saw them, to check the shares against.
    erasing = next((t for t, _, e, _, _ in rows if e > 0), rows[0][0])
    writing = next((t for t, _, _, w, _ in rows if w > 0), erasing)
    print(f"{worst:.1f} {len(rows)} {int(back)} {int(early)} {rows[-1][0] - rows[0][0]:.1f} "
          f"{writing - erasing:.1f} {(written_at or writing) - writing:.1f} "
          f"{(read_at or rows[-1][0]) - (written_at or writing):.1f} {rows[-1][0] - (read_at or 0):.1f} "
          f"{worst_at}")


if __name__ == "__main__":
    if sys.argv[1] == "--gap":
        gap(sys.argv[2])
    else:
        sample(sys.argv[1], sys.argv[2])
