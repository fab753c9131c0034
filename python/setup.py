"""Builds tarnpst._tarnpst with the project's CMake (a release build in build/python at the repository's
root) and puts the module and the kernel stand-in it loads into the package."""

import os
import subprocess

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        build = os.path.join(ROOT, "build", "python")
        subprocess.run(["cmake", "-S", ROOT, "-B", build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
                        "-DTARN_BUILD_TESTS=OFF", "-DPython3_EXECUTABLE=/usr/bin/python3"], check=True)
        subprocess.run(["cmake", "--build", build, "--target", "_tarnpst"], check=True)
        # The install step gives the module its installed search path: the package's own folder.
        package_parent = os.path.dirname(os.path.dirname(self.get_ext_fullpath(ext.name)))
        subprocess.run(["cmake", "--install", build, "--component", "python", "--prefix", package_parent], check=True)


setup(packages=["tarnpst"], ext_modules=[Extension("tarnpst._tarnpst", sources=[])], cmdclass={"build_ext": CMakeBuild})
