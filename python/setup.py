# SPDX-License-Identifier: Apache-2.0
"""Names the wheel: it carries a shared library for one platform, and serves every Python 3."""

from setuptools import Distribution, setup
from wheel.bdist_wheel import bdist_wheel


class PlatformWheel(bdist_wheel):
    def get_tag(self):
        return "py3", "none", super().get_tag()[2]


class WithLibrary(Distribution):
    def has_ext_modules(self):
        return True


setup(cmdclass={"bdist_wheel": PlatformWheel}, distclass=WithLibrary)
