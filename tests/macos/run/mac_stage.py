"""The macOS agent and a daemon, as two processes over the doubles of the frameworks."""

import os
import subprocess
import threading

SERVICE = "com.brovik.velmdaemon"


class MacStage:
    """What the steps of a script need, with files in the place of launchd and of the notification centres."""

    def __init__(self, directory, build, timeline, daemon="velmdaemon-sim"):
        self.timeline = timeline
        self.directory = directory
        self.log = os.path.join(directory, "home/Library/Logs/velmmonitord.log")
        self._build = build
        self._daemon_program = daemon
        self._agent = self._daemon = self._events = None
        events = os.path.join(directory, "events")
        self._environment = {**os.environ, "HOME": os.path.join(directory, "home"), "VELM_DOUBLES_DIRECTORY": directory,
                             "VELM_DOUBLES_EVENTS": events}

    def build(self):
        for name in ("system", "user", os.path.dirname(self.log)):
            os.makedirs(os.path.join(self.directory, name))
        # The job is loaded all the time; its program is not always there.
        open(os.path.join(self.directory, "system", SERVICE + ".job"), "wb").close()
        events = self._environment["VELM_DOUBLES_EVENTS"]
        os.mkfifo(events)
        self._events = os.open(events, os.O_RDWR)

    def start_daemon(self):
        self._daemon = self._start(self._daemon_program, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        threading.Thread(target=self.timeline.read, args=("daemon", self._daemon.stdout), daemon=True).start()

    def start_agent(self):
        self._agent = self._start("velmmonitord", stdout=subprocess.DEVNULL)
        threading.Thread(target=self.timeline.follow, args=("agent", self.log), daemon=True).start()

    def tell_daemon(self, command):
        self._daemon.stdin.write(command + "\n")
        self._daemon.stdin.flush()

    def kill_daemon(self):
        self._daemon.kill()
        self._daemon.wait()

    def kill_agent(self):
        self._agent.kill()
        self._agent.wait()

    def agent_status(self):
        return self._agent.poll()

    def set_locked(self, locked):
        self._post("distributed", "com.apple.screenIsLocked" if locked else "com.apple.screenIsUnlocked")

    def change_zone(self):
        self._post("local", "kCFTimeZoneSystemTimeZoneDidChangeNotification")

    def strike(self):
        for process in (self._agent, self._daemon):
            if process is not None and process.poll() is None:
                process.kill()
                process.wait()
        if self._events is not None:
            os.close(self._events)

    def complaints(self):
        for name in ("velmmonitord", self._daemon_program):
            path = os.path.join(self.directory, name + ".errors")
            if os.path.exists(path):
                with open(path, encoding="utf-8", errors="replace") as file:
                    yield from (f"{name}: {line.rstrip()}" for line in file)

    def _post(self, center, name):
        os.write(self._events, f"{center} {name}\n".encode())

    def _start(self, program, **streams):
        with open(os.path.join(self.directory, program + ".errors"), "ab") as errors:
            return subprocess.Popen([os.path.join(self._build, program)], env=self._environment, stderr=errors,
                                    **{"stdin": subprocess.DEVNULL, **streams})
