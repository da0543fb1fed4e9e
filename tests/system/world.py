"""What the points share: the container, its users, the daemon and the packages."""

import pathlib
import shutil
import time

from container import wait_until
from daemon import Daemon
from users import UNIT, User

INSIDE = "/var/cache/velmtest"


class World:
    def __init__(self, container, packages, previous):
        self.container = container
        self.daemon = Daemon(container)
        self._packages = {"current": packages, "previous": previous}
        self.here = pathlib.Path(__file__).resolve().parent
        self.alice = self.bob = self.carol = None
        self.alices_session = self.bobs_session = self.carols_session = None

    def add_users(self):
        self.alice = User(self.container, "alice")
        self.bob = User(self.container, "bob")
        self.carol = User(self.container, "carol")

    @property
    def users(self):
        """Those who are logged in for most of the test."""
        return (self.alice, self.bob, self.carol)

    def restore(self):
        """After a point that failed: what the others rest on, as far as it can be put back."""
        run = self.container.run
        run("systemctl", "--global", "enable", UNIT, check=False)
        run("timedatectl", "set-timezone", "UTC", check=False)
        for user, session in zip(self.users, (self.alices_session, self.bobs_session, self.carols_session)):
            if session is None:
                continue
            run("systemctl", "kill", "--signal=CONT", "--kill-whom=main", f"user@{user.uid}.service", check=False)
            user.systemctl("unmask", UNIT, check=False)
            user.systemctl("start", "dbus.socket", UNIT, check=False)
            session.set_locked_hint(False, check=False)

    def wait_until_settled(self, user):
        """Until a linked agent's last request has been answered, and no second one, to an answer that came late, is
        under way. An agent that is not linked asks each second, and never settles."""
        def said():
            return self.daemon.received(user), user.log_mark()

        def quiet():
            user.wait_until_heard()
            before = said()
            time.sleep(1.5)
            return said() == before

        wait_until(quiet, f"{user.name}'s agent has nothing to say about its link", cap=60)

    def package_files(self, which):
        """The packages' paths in the container, put there at the first call."""
        inside = self.container.path(INSIDE) / which
        if not inside.exists():
            inside.mkdir(parents=True)
            for name in ("velmmonitord_", "velmdaemon-sim_"):
                for file in self._packages[which].glob(f"{name}*.deb"):
                    shutil.copy(file, inside)
        files = [f"{INSIDE}/{which}/{file.name}" for file in sorted(inside.glob("*.deb"))]
        assert len(files) == 2, f"expected the agent's and the stand-in's package, found {files}"
        return files

    def apt(self, *arguments):
        """As an administrator does; its output must have no complaint of a maintainer script."""
        text = self.container.run("apt-get", "--quiet", "--yes", "--no-install-recommends", *arguments,
                                  env={"DEBIAN_FRONTEND": "noninteractive"})
        for word in ("error", "fail", "warning", "unable", "could not"):
            for line in text.splitlines():
                assert word not in line.lower() or "unsandboxed as root" in line, f"apt-get {arguments}: {line}"
        return text
