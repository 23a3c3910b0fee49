"""Builds the extension qimra._qimra with CMake (see pyproject.toml).

The library is linked statically into the module, so the installed package
is self-contained. Nothing but this tree and the local CMake, compiler,
Python headers and pybind11 is used.
"""
import os
import shutil
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = os.path.dirname(os.path.abspath(__file__))


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        build = os.path.join(os.path.abspath(self.build_temp), "cmake")
        subprocess.check_call([
            "cmake", "-S", ROOT, "-B", build, "-DCMAKE_BUILD_TYPE=Release",
            f"-DPython3_EXECUTABLE={sys.executable}", "-DQIMRA_BUILD_PYTHON=ON", "-DQIMRA_PYTHON_STATIC=ON",
            "-DQIMRA_BUILD_TESTS=OFF", "-DQIMRA_BUILD_TOOL=OFF", "-DQIMRA_BUILD_BENCH=OFF",
        ])
        subprocess.check_call(["cmake", "--build", build, "--target", "_qimra", "-j", str(os.cpu_count() or 1)])
        target = self.get_ext_fullpath(ext.name)
        os.makedirs(os.path.dirname(target), exist_ok=True)
        shutil.copyfile(os.path.join(build, "python", "qimra", os.path.basename(target)), target)


setup(ext_modules=[Extension("qimra._qimra", sources=[])], cmdclass={"build_ext": CMakeBuild})
