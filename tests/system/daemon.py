"""The stand-in for the management daemon, as a system service, and what it says it received."""

import re

from container import wait_until

UNIT = "velmdaemon-sim.service"
NAME = "com.brovik.velmdaemon"
PATH = "/com/brovik/velmdaemon"
INTERFACE = "com.brovik.XpcDaemonProtocol"


class Daemon:
    def __init__(self, container):
        self.container = container

    def start(self):
        self.container.run("systemctl", "start", UNIT)

    def stop(self):
        self.container.run("systemctl", "stop", UNIT)

    def pid(self):
        return int(self.container.run("systemctl", "show", "--property=MainPID", "--value", UNIT).strip() or 0)

    def is_active(self):
        return self.container.run("systemctl", "is-active", UNIT, check=False).strip() == "active"

    def lines(self, mark=0):
        return self.container.journal(f"--unit={UNIT}")[mark:]

    def mark(self):
        return len(self.lines())

    def received(self, user, mark=0):
        """What `user`'s agents sent after `mark`, as "method details"."""
        numbers, found = set(), []
        for index, line in enumerate(self.lines()):
            arrival = re.search(r"\b(agent \d+) +arrived +(.*)", line)
            call = re.search(r"\b(agent \d+) +<- (.*)", line)
            if arrival and re.search(rf"\b{user.name}\b", arrival.group(2)):
                numbers.add(arrival.group(1))
            elif arrival:
                numbers.discard(arrival.group(1))
            elif call and call.group(1) in numbers and index >= mark:
                found.append(" ".join(call.group(2).split()))
        return found

    def wait_for(self, user, mark, call, cap=30):
        wait_until(lambda: call in self.received(user, mark),
                   f"the daemon has {call!r} of {user.name}; it has {self.lines(mark)[-10:]}", cap)
