# SPDX-License-Identifier: Apache-2.0
"""Builds the module and the bundles with CMake, and puts them into the package with what they need of this project."""
import pathlib
import shutil
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

SOURCE = pathlib.Path(__file__).resolve().parent.parent


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        build = pathlib.Path(self.build_temp).resolve()
        subprocess.run(["cmake", "-S", SOURCE, "-B", build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=RelWithDebInfo", "-DSEALSCOPE_PYTHON=ON",
                        "-DCMAKE_UNITY_BUILD=ON", "-DCMAKE_UNITY_BUILD_BATCH_SIZE=12",
                        f"-DSEALSCOPE_PYTHON_EXECUTABLE={sys.executable}", "-DSEALSCOPE_TESTS=OFF", "-DSEALSCOPE_BENCH=OFF",
                        "-DCMAKE_INSTALL_LIBDIR=lib"], check=True)
        subprocess.run(["cmake", "--build", build, "--target", "sealscope_python"], check=True)
        package = pathlib.Path(self.get_ext_fullpath(ext.name)).resolve().parent
        package.mkdir(parents=True, exist_ok=True)
        built = build / "lib/python3/dist-packages/sealscope"
        for module in built.glob("_core.*.so"):
            shutil.copy2(module, package)
        # Under the names that the linker looks for, beside the module.
        for library in (build / "lib").glob("libsealscope_*.so.[0-9]*"):
            if library.name.count(".") == 2:
                shutil.copy2(library, package)
        shutil.copy2(SOURCE / "LICENSE", package)
        shutil.copytree(build / "lib/sealscope/plugins", package / "plugins", dirs_exist_ok=True)


setup(ext_modules=[Extension("sealscope._core", sources=[])], cmdclass={"build_ext": CMakeBuild})
