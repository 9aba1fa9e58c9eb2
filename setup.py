"""Builds the extension zu_data_manager._core with the project's own CMake build.

The extension links the library statically (the internal static target), so the package is
self-contained: no libzu_data_manager.so has to be installed or found beside it. Needs cmake,
a C++17 compiler, pybind11-dev and python3-dev; ninja is used when present.
Environment: CMAKE (the cmake program), ZU_CMAKE_ARGS (extra configure arguments),
CMAKE_BUILD_PARALLEL_LEVEL (build jobs).
"""
import os
import re
import shlex
import shutil
import subprocess
import sys
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = Path(__file__).resolve().parent


def library_version():
    text = (ROOT / "CMakeLists.txt").read_text()
    return re.search(r"project\(zu_data_manager\s+VERSION\s+([0-9.]+)", text).group(1)


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        cmake = os.environ.get("CMAKE", "cmake")
        build = Path(self.build_temp).resolve() / "cmake"
        configure = [
            cmake, "-S", str(ROOT), "-B", str(build),
            "-DCMAKE_BUILD_TYPE=" + ("Debug" if self.debug else "Release"),
            "-DZU_BUILD_PYTHON=ON", "-DZU_PYTHON_REQUIRED=ON",
            "-DZU_BUILD_TESTS=OFF", "-DZU_BUILD_EXAMPLES=OFF", "-DZU_BUILD_TOOLS=OFF",
            "-DPython_EXECUTABLE=" + sys.executable,
        ]
        if not (build / "CMakeCache.txt").exists() and shutil.which("ninja"):
            configure += ["-G", "Ninja"]
        configure += shlex.split(os.environ.get("ZU_CMAKE_ARGS", ""))
        subprocess.run(configure, check=True)
        subprocess.run([cmake, "--build", str(build), "--target", "zu_data_manager_python"],
                       check=True)
        built = sorted((build / "python" / "zu_data_manager").glob("_core*.so"))
        if not built:
            raise RuntimeError("the CMake build made no zu_data_manager._core extension")
        target = Path(self.get_ext_fullpath(ext.name))
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(built[0], target)


setup(
    version=library_version(),
    packages=["zu_data_manager"],
    package_dir={"": "python"},
    package_data={"zu_data_manager": ["__init__.pyi", "py.typed"]},
    ext_modules=[Extension("zu_data_manager._core", sources=[])],
    cmdclass={"build_ext": CMakeBuild},
    zip_safe=False,
)
