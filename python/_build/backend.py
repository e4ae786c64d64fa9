"""Build backend: setuptools', taken from the interpreter's own site-packages.

pip builds in an isolated environment and would download setuptools into it;
offline that fails. setuptools is part of the system's Python (Debian's
python3-setuptools) or of any venv made by it, so the isolation is lifted for
setuptools alone by appending those folders to the path.
"""

import site
import sys

try:
    import setuptools  # noqa: F401
except ImportError:
    for folder in site.getsitepackages() + site.getsitepackages([sys.base_prefix]):
        if folder not in sys.path:
            sys.path.append(folder)

from setuptools.build_meta import *  # noqa: E402,F401,F403
