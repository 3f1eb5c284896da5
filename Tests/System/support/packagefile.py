"""The Debian package that scripts/package built."""

import os
import re
import shutil
from pathlib import Path

from processes import run


def the_package():
    packages = sorted(Path(os.environ["STILLOW_PACKAGE_DIRECTORY"]).glob("stillow_*.deb"))
    if not packages:
        raise AssertionError("there is no package to test: build it with scripts/package")
    return packages[-1]


def next_version_of(package, directory):
    """The same files as the next version of the package."""
    tree = directory / "next"
    run(["dpkg-deb", "--raw-extract", package, tree])
    control = tree / "DEBIAN/control"
    text, count = re.subn(r"^Version: (.*)$", r"Version: \1+next", control.read_text(),
                          flags=re.MULTILINE)
    assert count == 1, text
    control.write_text(text)
    run(["dpkg-deb", "--build", "--root-owner-group", tree, directory / "stillow-next.deb"])
    shutil.rmtree(tree)
    return directory / "stillow-next.deb"
