"""A copy of the tree to make mistakes in, kept from one run to the next so that only what changed is built again."""

import fcntl
import os
import shutil
import subprocess
from pathlib import Path


class CopyInUse(Exception):
    """Somebody else is making mistakes in the copy."""


def _files_of(tree):
    """The tree's files, relative to it: what git knows or would add; without git, all outside the build directory."""
    listed = subprocess.run(["git", "-C", tree, "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
                            capture_output=True, check=False)
    # Nothing at all: the tree lies in somebody else's repository, which ignores it.
    if listed.returncode == 0 and listed.stdout:
        names = [os.fsdecode(name) for name in listed.stdout.split(b"\0") if name]
    else:
        names = [str(path.relative_to(tree)) for path in tree.rglob("*")
                 if path.relative_to(tree).parts[0] not in ("build", ".git")]
    return {name for name in names if (tree / name).is_file() or (tree / name).is_symlink()}


def _differ(source, target):
    if source.is_symlink() or target.is_symlink() or not target.is_file():
        return True
    return source.stat().st_mode != target.stat().st_mode or source.read_bytes() != target.read_bytes()


class CopyOfTree:
    """The copy, brought up to date on entry. One at a time: a second one is refused."""

    def __init__(self, tree, place):
        self.tree = Path(tree)
        self.place = Path(place)
        self._lock = None

    def __enter__(self):
        self.place.mkdir(parents=True, exist_ok=True)
        self._lock = open(self.place.parent / "lock", "w")
        try:
            fcntl.flock(self._lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except OSError as error:
            self._lock.close()
            raise CopyInUse(f"another run is using {self.place}") from error
        self._bring_up_to_date()
        return self

    def __exit__(self, *_):
        self._lock.close()

    def _bring_up_to_date(self):
        wanted = _files_of(self.tree)
        for path in self.place.rglob("*"):
            name = path.relative_to(self.place)
            if name.parts[0] != "build" and not path.is_dir() and str(name) not in wanted:
                path.unlink()
        for name in wanted:
            source, target = self.tree / name, self.place / name
            if _differ(source, target):
                target.parent.mkdir(parents=True, exist_ok=True)
                target.unlink(missing_ok=True)
                shutil.copyfile(source, target, follow_symlinks=False)
                shutil.copymode(source, target, follow_symlinks=False)

    def with_mistake(self, mutant):
        """A context in which the copy has the mistake. The new times make a build see both changes."""
        return _Mistake(self.place / mutant.file, mutant)


class _Mistake:
    def __init__(self, path, mutant):
        self._path = path
        self._text = path.read_bytes().decode()
        self._mutant = mutant

    def __enter__(self):
        self._path.write_bytes(self._mutant.applied(self._text).encode())

    def __exit__(self, *_):
        self._path.write_bytes(self._text.encode())
