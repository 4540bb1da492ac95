#!/usr/bin/python3
"""Runs a program and writes each line of its standard error, prefixed by the milliseconds since just before its exec."""
import argparse
import os
import selectors
import signal
import subprocess
import sys
import time


def cpu_ms(pid: int) -> float:
    """CPU time of every thread of process pid (to the nanosecond) and of its waited-for children
    (in clock ticks), in milliseconds."""
    threads = 0
    task_dir = f"/proc/{pid}/task"
    for tid in os.listdir(task_dir):
        try:
            with open(f"{task_dir}/{tid}/schedstat") as f:
                threads += int(f.read().split()[0])
        except (FileNotFoundError, ProcessLookupError):
            pass  # the thread ended after the listing
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    children_ticks = int(fields[13]) + int(fields[14])  # cutime, cstime
    return threads / 1e6 + children_ticks * 1000 / os.sysconf("SC_CLK_TCK")


def main() -> int:
    parser = argparse.ArgumentParser(
        description="Time-stamps the standard-error lines of a program, counted from its start.")
    parser.add_argument("--out", required=True, help="file that receives 'MS LINE' lines")
    parser.add_argument("--stdout", default=os.devnull, help="file for the program's standard output")
    parser.add_argument("--until", help="end the program (SIGTERM) once a line holds this text")
    parser.add_argument("--timeout", type=float, default=60.0,
                        help="seconds before the program is ended anyway (exit 3)")
    parser.add_argument("--pid-file", help="file that receives the program's process id")
    parser.add_argument("--cpu-file", help="file that receives the CPU milliseconds of the program's "
                        "threads and of its ended children when the --until line arrives")
    parser.add_argument("command", nargs=argparse.REMAINDER)
    args = parser.parse_args()
    command = args.command[1:] if args.command[:1] == ["--"] else args.command
    if not command:
        parser.error("no program given")

    with open(args.out, "w", buffering=1) as out, open(args.stdout, "wb") as stdout:
        # Fork and exec happen inside Popen: the clock starts before both, as a shell's would.
        start = time.monotonic_ns()
        # A session of its own, so that ending it reaches the program behind a wrapper such as
        # /usr/bin/time too: a program left running would hold the pipe open for good.
        child = subprocess.Popen(command, stdout=stdout, stderr=subprocess.PIPE,
                                 start_new_session=True)
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
                if args.until is not None and args.until in text and not found:
                    found = True
                    if args.cpu_file:
                        with open(args.cpu_file, "w") as f:
                            f.write(f"{cpu_ms(child.pid):.1f}\n")
            if args.until is not None and found:
                break
        if pending:
            out.write(f"{(time.monotonic_ns() - start) / 1e6:.1f} {pending.decode('utf-8', 'replace')}\n")
        if child.poll() is None and (args.until is not None or timed_out):
            os.killpg(child.pid, signal.SIGTERM)
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
