"""What the points share: the container, its users, the daemon and the packages."""

import shutil

from daemon import Daemon
from users import User

INSIDE = "/var/cache/velmtest"


class World:
    def __init__(self, container, packages, previous):
        self.container = container
        self.daemon = Daemon(container)
        self._packages = {"current": packages, "previous": previous}
        self.alice = self.bob = None
        self.alices_session = self.bobs_session = None

    def add_users(self):
        self.alice = User(self.container, "alice")
        self.bob = User(self.container, "bob")

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
