#!/usr/bin/env python3
"""Reads the demo host's window the way a screen reader does, through AT-SPI.

Usage (under tools/with-atspi): atspi_walk.py ZD_DEMO_HOST

Starts the host on the display, finds its application on the accessibility bus,
walks its tree and checks what a screen-reader user would hear: the sign-in
dialog with named fields, and the form's rows with their roles, names and
states. The host shows its sheet as a window of its own (--sheet-window), which
must be announced as a window with the host's title. Prints the walk; exits non-zero with the reason when something is
missing.
"""
import os
import subprocess
import sys
import tempfile
import time

import pyatspi


def walk(node, depth=0, out=None):
    out = [] if out is None else out
    try:
        states = node.getState()
        names = [pyatspi.stateToString(s) for s in states.getStates()]
        out.append((depth, node.getRoleName(), node.name or "", node.description or "", names))
        for i in range(node.childCount):
            child = node.getChildAtIndex(i)
            if child is not None:
                walk(child, depth + 1, out)
    except Exception as error:  # a node that went away while being read
        out.append((depth, "gone", str(error), "", []))
    return out


def app_names():
    desktop = pyatspi.Registry.getDesktop(0)
    names = []
    for i in range(desktop.childCount):
        app = desktop.getChildAtIndex(i)
        if app is not None:
            names.append(app.name)
    return names


def find_app(name, proc, deadline):
    """The application called name once it joined the desktop; None when proc
    ended or the deadline passed first."""
    while time.time() < deadline and proc.poll() is None:
        desktop = pyatspi.Registry.getDesktop(0)
        for i in range(desktop.childCount):
            app = desktop.getChildAtIndex(i)
            if app is not None and app.name == name:
                return app
        time.sleep(0.5)
    return None


def report_missing_host(proc, log):
    """Says why the host is not on the bus: how it ended, or, when it still
    runs, what its threads are doing; then what it printed."""
    if proc.poll() is not None:
        print("atspi_walk: the demo host ended with status %d before it joined the desktop"
              % proc.returncode)
    else:
        print("atspi_walk: the demo host runs but is not on the desktop (which holds %s)"
              % app_names())
        try:
            trace = subprocess.run(["gdb", "-p", str(proc.pid), "-batch", "-nx",
                                    "-ex", "thread apply all bt"],
                                   capture_output=True, text=True, timeout=60).stdout
            print("atspi_walk: its threads:\n" + trace)
        except (OSError, subprocess.TimeoutExpired) as error:
            print("atspi_walk: no stack from gdb: %s" % error)
    log.seek(0)
    print("atspi_walk: the host printed:\n" + log.read().decode(errors="replace"))


def main():
    host = sys.argv[1]
    with tempfile.TemporaryDirectory() as tmp, tempfile.TemporaryFile() as log:
        video = os.path.join(tmp, "clip.mp4")
        with open(video, "wb") as f:
            f.write(os.urandom(200 * 1024))
        # Settings and the upload journal of its own: what other runs of the
        # host left there never changes what this one shows.
        env = dict(os.environ, QT_QPA_PLATFORM="xcb",
                   XDG_CONFIG_HOME=os.path.join(tmp, "config"),
                   XDG_DATA_HOME=os.path.join(tmp, "data"))
        proc = subprocess.Popen([host, video, "--no-keyring", "--sheet-window",
                                 "--service", "http://127.0.0.1:9/"],
                                env=env, stdout=log, stderr=subprocess.STDOUT)
        try:
            deadline = time.time() + 60
            app = find_app("zd_demo_host", proc, deadline)
            if app is None:
                report_missing_host(proc, log)
                return 1
            wanted = {
                ("dialog", "Sign in to Demo Video"),
                ("push button", "Publish"),
                ("push button", "Cancel"),
            }
            rows = []
            while time.time() < deadline:
                rows = walk(app)
                seen = {(role, name) for _, role, name, _, _ in rows}
                texts = [(role, name) for _, role, name, _, _ in rows]
                radios = [r for r in rows if r[1] == "radio button"]
                fields = [r for r in rows if r[1] in ("text", "password text") and r[2]]
                if wanted <= seen and len(radios) >= 2 and len(fields) >= 2:
                    break
                time.sleep(0.5)
            for depth, role, name, description, states in rows:
                print("%s%s \"%s\"%s [%s]" % ("  " * depth, role, name,
                                               (" (" + description + ")") if description else "",
                                               ", ".join(s for s in states if s in (
                                                   "checked", "focused", "focusable", "enabled",
                                                   "modal", "showing"))))
            seen = {(role, name) for _, role, name, _, _ in rows}
            missing = [w for w in wanted if w not in seen]
            if missing:
                print("atspi_walk: not on the bus: %s" % missing)
                return 1
            windows = [(r[1], r[2]) for r in rows if r[0] == 1]
            if ("frame", "Photos \u2014 Publish to Demo Video") not in windows:
                print("atspi_walk: the sheet's own window is not a frame with the host's title: %s"
                      % windows)
                return 1
            radios = [r for r in rows if r[1] == "radio button"]
            standard = [r for r in radios if r[2].startswith("Standard, ") and "checked" in r[4]]
            if len(radios) < 2 or len(standard) != 1:
                print("atspi_walk: the quality rows are not radio buttons with one checked")
                return 1
            fields = [r for r in rows if r[1] in ("text", "password text") and r[2]]
            if not {"User name", "Password", "Title", "Description"} <= {r[2] for r in fields}:
                print("atspi_walk: the sign-in fields have no names")
                return 1
            # The tag rows are the items of one list, so that each says its
            # place ("1 of 1"); the terms text under the account row is read.
            tags = [i for i, r in enumerate(rows) if r[1] == "list" and r[2] == "Tags"]
            if not tags:
                print("atspi_walk: the tag rows are not a list named Tags")
                return 1
            depth = rows[tags[0]][0]
            items = []
            for r in rows[tags[0] + 1:]:
                if r[0] <= depth:
                    break
                if r[0] == depth + 1:
                    items.append(r)
            if not items or any(r[1] != "list item" for r in items):
                print("atspi_walk: the Tags list holds no list items: %s" % items)
                return 1
            if not any(r[1] in ("label", "static") and "terms of use" in r[2] for r in rows):
                print("atspi_walk: the terms text is not on the bus")
                return 1
            print("atspi_walk: ok")
            return 0
        finally:
            proc.terminate()
            try:
                proc.wait(10)
            except subprocess.TimeoutExpired:
                proc.kill()


if __name__ == "__main__":
    sys.exit(main())
