"""Builds the extension qmo_seq._core with the project's CMake, for pip and wheels.

QMO_SEQ_BUILD_DIR names an existing CMake build to take the extension from
(built there if out of date); otherwise a fresh one is configured in the
setuptools build directory.
"""

import os
import re
import shutil
import subprocess
import sys
import sysconfig
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = Path(__file__).resolve().parent
VERSION = re.search(r"\bVERSION\s+(\d+\.\d+\.\d+)", (ROOT / "CMakeLists.txt").read_text()).group(1)
REUSED = os.environ.get("QMO_SEQ_BUILD_DIR")
# Away from build/, the README's CMake build, and beside a reused build.
BUILD_BASE = Path(REUSED).resolve() / "pip" if REUSED else ROOT / "build-pip"


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        build = Path(REUSED).resolve() if REUSED else Path(self.build_temp).resolve() / "cmake"
        if not (build / "CMakeCache.txt").exists():
            self._run("cmake", "-S", ROOT, "-B", build, "-DCMAKE_BUILD_TYPE=Release",
                      f"-DPython_EXECUTABLE={sys.executable}", "-DBUILD_TESTING=OFF",
                      "-DQMO_SEQ_BUILD_EXAMPLES=OFF", "-DQMO_SEQ_BUILD_BENCH=OFF")
        jobs = self.parallel or os.cpu_count() or 1
        self._run("cmake", "--build", build, "--target", "qmo_seq_python", "-j", jobs)
        built = build / "python" / "qmo_seq" / ("_core" + sysconfig.get_config_var("EXT_SUFFIX"))
        if not built.exists():
            sys.exit(f"{built} is missing: {build} was configured for another Python than {sys.executable}")
        target = Path(self.get_ext_fullpath(ext.name))
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(built, target)

    @staticmethod
    def _run(*command):
        command = [str(c) for c in command]
        print(" ".join(command), flush=True)
        subprocess.run(command, check=True)


BUILD_BASE.mkdir(parents=True, exist_ok=True)
setup(
    version=VERSION,
    ext_modules=[Extension("qmo_seq._core", sources=[])],
    cmdclass={"build_ext": CMakeBuild},
    options={"build": {"build_base": str(BUILD_BASE)}, "egg_info": {"egg_base": str(BUILD_BASE)}},
)
