"""`pip install ./python`: the package, with the library and its plugins from
the checkout's build folder (or TQFPLAY_BUILD) copied beside it when built."""

import os
import shutil
from pathlib import Path

from setuptools import setup
from setuptools.command.build_py import build_py

LIBRARIES = ("libTQFPlay.so.1", "libavsdec.so", "libjpgdec.so")


class BuildWithLibrary(build_py):
    def run(self):
        super().run()
        build = Path(os.environ.get("TQFPLAY_BUILD", Path(__file__).resolve().parent.parent / "build"))
        for name in LIBRARIES:
            if (build / name).exists():
                shutil.copyfile(build / name, Path(self.build_lib) / "tqfplay" / name)


setup(cmdclass={"build_py": BuildWithLibrary})
