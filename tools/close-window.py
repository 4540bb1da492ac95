#!/usr/bin/python3
"""Asks an X11 window to close, as a window manager's close button does (WM_DELETE_WINDOW)."""
import sys

from Xlib import X, display, protocol


def main() -> int:
    if len(sys.argv) != 2:
        print("usage: close-window.py WINDOW_ID", file=sys.stderr)
        return 2
    d = display.Display()
    window = d.create_resource_object("window", int(sys.argv[1], 0))
    protocols = d.intern_atom("WM_PROTOCOLS")
    delete = d.intern_atom("WM_DELETE_WINDOW")
    event = protocol.event.ClientMessage(window=window, client_type=protocols,
                                         data=(32, [delete, X.CurrentTime, 0, 0, 0]))
    window.send_event(event, event_mask=X.NoEventMask)
    d.flush()
    return 0


if __name__ == "__main__":
    sys.exit(main())
