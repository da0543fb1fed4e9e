"""Packages like those that were built, but for an edit."""

import pathlib
import subprocess
import tempfile


def repack(package, target, edit, fields=None):
    """Writes `package` to the directory `target`, after `edit(tree)` and with these control fields; returns its path."""
    with tempfile.TemporaryDirectory() as work:
        tree = pathlib.Path(work) / "tree"
        subprocess.run(["dpkg-deb", "-R", package, tree], check=True)
        tree.chmod(0o755)
        edit(tree)
        control = tree / "DEBIAN/control"
        lines = control.read_text().splitlines()
        for field, value in (fields or {}).items():
            lines = [f"{field}: {value}" if line.startswith(f"{field}: ") else line for line in lines]
        control.write_text("\n".join(lines) + "\n")
        sums = subprocess.run("find usr -type f -print0 | LC_ALL=C sort -z | xargs -0 md5sum", shell=True, check=True,
                              cwd=tree, stdout=subprocess.PIPE).stdout
        (tree / "DEBIAN/md5sums").write_bytes(sums)
        target.mkdir(parents=True, exist_ok=True)
        subprocess.run(["dpkg-deb", "--root-owner-group", "-Zgzip", "-z1", "-b", tree, target], check=True,
                       stdout=subprocess.DEVNULL)


def replace(path, *pairs):
    """Replaces texts that must each be there."""
    text = path.read_text()
    for old, new in pairs:
        assert old in text, f"{path.name} has no {old!r}"
        text = text.replace(old, new)
    path.write_text(text)
