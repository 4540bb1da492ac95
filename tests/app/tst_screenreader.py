#!/usr/bin/python3
"""What a screen reader hears through a whole upgrade, read over the real AT-SPI bus with the
library Orca is built on. Usage: tst_screenreader.py PROGRAM LANGUAGE"""
import ctypes
import os
import signal
import subprocess
import sys
import tempfile

# The bar's names through an upgrade, in order; the last one comes with the value 100.
PHASES = {
    "en": ["Upgrading firmware", "Erasing", "Writing firmware", "Unit restarting", "Verifying",
           "Done. Disconnect USB cable."],
    "de": ["Firmware wird aktualisiert", "Löschen", "Firmware schreiben", "Gerät startet neu",
           "Prüfen", "Fertig. USB-Kabel abziehen."],
}
PLACEHOLDERS = ("This text should not be visible!", "FW differs", "%p")


def die_with_test():
    ctypes.CDLL(None).prctl(1, signal.SIGTERM)  # PR_SET_PDEATHSIG: no orphan after a time-out


def start_display():
    read, write = os.pipe()
    xvfb = subprocess.Popen(["Xvfb", "-displayfd", str(write), "-screen", "0", "1024x768x24",
                             "-nolisten", "tcp"], pass_fds=(write,), preexec_fn=die_with_test,
                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    os.close(write)
    number = b""
    while not number.endswith(b"\n"):
        number += os.read(read, 16)
    os.environ["DISPLAY"] = ":" + number.decode().strip()
    return xvfb


def run(program, language, state):
    """The window's tree once Install is offered, and every name and value heard until the unit
    has been pulled after Done."""
    import pyatspi
    from gi.repository import GLib

    env = dict(os.environ, QT_QPA_PLATFORM="xcb", QT_LINUX_ACCESSIBILITY_ALWAYS_ON="1",
               LUMAXIS_SIMULATOR_STATE=state, LUMAXIS_SIMULATOR_ABSENT_MS="300",
               LANGUAGE=language, LANG="de_DE.UTF-8" if language == "de" else "C.UTF-8")
    simulator = [os.path.join(os.path.dirname(program), "..", "simulator", "dfu-util_simulator.sh"),
                 "--dfu-util-command"]
    subprocess.run(simulator + ["setup_prepared_config", "default"], env=env, check=True,
                   stdout=subprocess.DEVNULL)
    # The event carries no name: a reader asks for it on receipt, as Orca does. A phase must last
    # longer than that round trip, so the unit takes a tenth of a real one's time, not none.
    with open(os.path.join(state, "settings"), "a") as settings:
        settings.write("TIME_SCALE=10\n")

    tree, heard, end = [], [], {}
    log = open(os.path.join(state, "program.log"), "w")
    child = subprocess.Popen([program, "-s"], env=env, stdout=log, stderr=log,
                             preexec_fn=die_with_test)

    def finish(failure=None):
        end.setdefault("failure", failure)
        pyatspi.Registry.stop()
        return False

    def on_event(event):
        role = event.source.getRoleName()
        if event.type.startswith("object:state-changed"):
            # The bar going after the unit has been pulled is the end.
            if role == "progress bar" and not event.detail1 and "done value" in end:
                GLib.timeout_add(500, finish)
            return
        if event.type.endswith("accessible-value"):
            heard.append((role, "value", int(event.source.queryValue().currentValue)))
            return
        name = event.source.name
        heard.append((role, "name", name))
        if role == "progress bar" and name == PHASES[language][-1] and "done value" not in end:
            end["done value"] = int(event.source.queryValue().currentValue)
            subprocess.run(simulator + ["unplug"], env=env, check=True)

    def offer():
        for app in pyatspi.Registry.getDesktop(0):
            if app is None or app.get_process_id() != child.pid:
                continue
            button = pyatspi.findDescendant(app, lambda a: a.getRoleName() == "push button")
            if button:
                button.clear_cache()  # its states as they are now, not as first read
            if not button or not button.getState().contains(pyatspi.STATE_SENSITIVE):
                return True
            frame = app[0]
            tree.extend((a.getRoleName(), a.name, a.description) for a in frame)
            button.queryAction().doAction(0)
            return False
        return True

    for kind in ("property-change:accessible-name", "property-change:accessible-value",
                 "state-changed:showing"):
        pyatspi.Registry.registerEventListener(on_event, "object:" + kind)
    GLib.timeout_add(100, offer)
    GLib.timeout_add_seconds(40, finish, "no Done and unplug within 40 s")
    pyatspi.Registry.start()
    child.terminate()
    child.wait(10)
    return tree, heard, end, open(log.name).read()


def check(language, tree, heard, end):
    failures = []

    def expect(ok, what):
        if not ok:
            failures.append(what)

    spoken = [(role, text) for role, kind, text in heard if kind == "name" and text]
    for role, name, description in tree:
        expect(name == " ".join(name.split()), f"{role} {name!r}: a name reads as one sentence")
    described = {role: description for role, name, description in tree if description}
    expect(len(set(described.values())) == len(described) >= 4,
           f"each kind of element says what it is for: {described}")
    expect(("progress bar", "") in [(r, n) for r, n, d in tree], "the hidden bar has no name")
    for role, text in spoken + [(r, n) for r, n, d in tree]:
        expect(not any(p in text for p in PLACEHOLDERS), f"{role} {text!r}: placeholder heard")
    for before, after in zip(spoken, spoken[1:]):
        expect(before != after, f"{after}: said twice in a row")
    bar = [text for role, text in spoken if role == "progress bar"]
    expect(bar == PHASES[language], f"the bar's names in order: {bar}")
    expect(end.get("done value") == 100, f"Done comes with the value 100: {end}")
    values = [text for role, kind, text in heard if kind == "value"]
    expect(len(values) <= 101, f"at most one value change a whole percent: {len(values)}")
    return failures


def main():
    program, language = sys.argv[1:3]
    if "LUMAXIS_SCREENREADER_BUS" not in os.environ:
        # A session bus of its own, and a runtime folder of its own for the accessibility bus's
        # socket, which the bus launcher would otherwise share with every other session.
        with tempfile.TemporaryDirectory() as runtime:
            env = dict(os.environ, XDG_RUNTIME_DIR=runtime, LUMAXIS_SCREENREADER_BUS="1")
            return subprocess.run(["dbus-run-session", "--", sys.executable] + sys.argv,
                                  env=env).returncode
    xvfb = start_display()
    try:
        with tempfile.TemporaryDirectory() as state:
            tree, heard, end, log = run(program, language, state)
    finally:
        xvfb.terminate()
    for role, kind, text in heard:
        print(f"{role}: {kind} {text}")
    failures = ([end["failure"]] if end.get("failure") else []) + check(language, tree, heard, end)
    for failure in failures:
        print("FAIL:", failure)
    if failures:
        print(log)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
