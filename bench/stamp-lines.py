#!/usr/bin/python3
"""Runs a program and writes each line of its standard error, prefixed by the milliseconds since just before its exec."""
import argparse
import os
import selectors
import signal
import subprocess
import sys
import time


def main() -> int:
    parser = argparse.ArgumentParser(
        description="Time-stamps the standard-error lines of a program, counted from its start.")
    parser.add_argument("--out", required=True, help="file that receives 'MS LINE' lines")
    parser.add_argument("--stdout", default=os.devnull, help="file for the program's standard output")
    parser.add_argument("--until", help="end the program (SIGTERM) once a line holds this text")
    parser.add_argument("--timeout", type=float, default=60.0,
                        help="seconds before the program is ended anyway (exit 3)")
    parser.add_argument("--pid-file", help="file that receives the program's process id")
    parser.add_argument("command", nargs=argparse.REMAINDER)
    args = parser.parse_args()
    command = args.command[1:] if args.command[:1] == ["--"] else args.command
    if not command:
        parser.error("no program given")

    with open(args.out, "w", buffering=1) as out, open(args.stdout, "wb") as stdout:
        # Fork and exec happen inside Popen: the clock starts before both, as a shell's would.
        start = time.monotonic_ns()
        child = subprocess.Popen(command, stdout=stdout, stderr=subprocess.PIPE)
        if args.pid_file:
            with open(args.pid_file, "w") as f:
                f.write(f"{child.pid}\n")
        selector = selectors.DefaultSelector()
        selector.register(child.stderr, selectors.EVENT_READ)
        pending = b""
        deadline = time.monotonic() + args.timeout
        found = args.until is None
        timed_out = False
        while True:
            remaining = deadline - time.monotonic()
            if remaining <= 0:
                timed_out = True
                break
            if not selector.select(remaining):
                continue
            # The program writes each log line with one fprintf on an unbuffered stream, so a
            # read returns whole lines as soon as they are written.
            chunk = os.read(child.stderr.fileno(), 65536)
            now_ms = (time.monotonic_ns() - start) / 1e6
            if not chunk:
                break
            pending += chunk
            *lines, pending = pending.split(b"\n")
            for line in lines:
                text = line.decode("utf-8", "replace")
                out.write(f"{now_ms:.1f} {text}\n")
                if args.until is not None and args.until in text:
                    found = True
            if args.until is not None and found:
                break
        if pending:
            out.write(f"{(time.monotonic_ns() - start) / 1e6:.1f} {pending.decode('utf-8', 'replace')}\n")
        if child.poll() is None and (args.until is not None or timed_out):
            child.send_signal(signal.SIGTERM)
        # Keep draining so that a program writing on its way out never blocks on a full pipe.
        for chunk in iter(lambda: os.read(child.stderr.fileno(), 65536), b""):
            pass
        status = child.wait()
    if not found:
        print(f"stamp-lines: no line with \"{args.until}\": {' '.join(command)}", file=sys.stderr)
        return 3
    if timed_out:
        print(f"stamp-lines: ended after {args.timeout} s: {' '.join(command)}", file=sys.stderr)
    return 0 if args.until is not None else (status if status >= 0 else 128 - status)


if __name__ == "__main__":
    sys.exit(main())
