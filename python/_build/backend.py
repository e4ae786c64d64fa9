"""Build backend: setuptools', with setuptools and wheel taken from the interpreter.

pip builds in an isolated environment and would download setuptools and wheel
into it; offline that fails. Both come with the system's Python (Debian's
python3-setuptools and python3-wheel), so the isolation is lifted for them by
appending the interpreter's own site folders to the path, and nothing is asked
for when they are there.
"""

import site
import sys

for _folder in site.getsitepackages() + site.getsitepackages([sys.base_prefix]):
    if _folder not in sys.path:
        sys.path.append(_folder)

from setuptools import build_meta as _meta  # noqa: E402
from setuptools.build_meta import *  # noqa: E402,F401,F403

try:
    import wheel  # noqa: F401

    def get_requires_for_build_wheel(config_settings=None):
        return []

    def get_requires_for_build_editable(config_settings=None):
        return []
except ImportError:  # pip fetches it, where an index is reachable
    get_requires_for_build_wheel = _meta.get_requires_for_build_wheel
