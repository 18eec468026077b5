"""The build backend of `pip install .` (PEP 517): builds the Python module with CMake and packs
it into a wheel, with nothing but the standard library, CMake and the Debian packages the module
needs (scripts/install-deps.sh python). pyproject.toml names it.

The module is built in Release under build/wheel-<python version>/ of the checkout (kept, so that
a second install builds only what changed), for the interpreter that runs pip. The wheel holds
the package tarvel/ with the extension and the two shared libraries it loads from beside itself.
"""

import base64
import hashlib
import os
import re
import shutil
import subprocess
import sys
import sysconfig
import zipfile

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
NAME = "tarvel"


def _project():
    """(version, summary, requires-python, dependencies) from pyproject.toml."""
    text = open(os.path.join(ROOT, "pyproject.toml"), encoding="utf-8").read()
    field = lambda key: re.search(rf'^{key}\s*=\s*"([^"]*)"', text, re.M).group(1)  # noqa: E731
    dependencies = re.findall(r'"([^"]+)"', re.search(r"^dependencies\s*=\s*\[([^\]]*)\]", text, re.M).group(1))
    return field("version"), field("description"), field("requires-python"), dependencies


def _tag():
    version = f"{sys.version_info.major}{sys.version_info.minor}"
    platform = sysconfig.get_platform().replace("-", "_").replace(".", "_")
    return f"cp{version}-cp{version}{sys.abiflags}-{platform}"


def _metadata():
    version, summary, requires_python, dependencies = _project()
    lines = ["Metadata-Version: 2.1", f"Name: {NAME}", f"Version: {version}", f"Summary: {summary}",
             f"Requires-Python: {requires_python}"] + [f"Requires-Dist: {d}" for d in dependencies]
    return "\n".join(lines) + "\n"


def _build(staging):
    """Builds the module and installs the package into `staging`/tarvel."""
    build = os.path.join(ROOT, "build", f"wheel-{sys.version_info.major}.{sys.version_info.minor}")
    configure = ["cmake", "-S", ROOT, "-B", build, "-DCMAKE_BUILD_TYPE=Release", "-DTARVEL_TESTS=OFF",
                 "-DTARVEL_BENCH=OFF", "-DTARVEL_PYTHON=ON", "-DTARVEL_PYTHON_WHEEL=ON",
                 f"-DPython3_EXECUTABLE={sys.executable}"]
    if shutil.which("ninja") and not os.path.exists(os.path.join(build, "CMakeCache.txt")):
        configure += ["-G", "Ninja"]
    jobs = os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL", "2")
    for command in (configure, ["cmake", "--build", build, "--target", "tarvel_python", "-j", jobs],
                    ["cmake", "--install", build, "--component", "python", "--prefix", staging]):
        subprocess.run(command, check=True, stdout=sys.stderr)


def _record_line(path, data):
    digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
    return f"{path},sha256={digest},{len(data)}"


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    version = _project()[0]
    staging = os.path.join(ROOT, "build", "wheel-staging")
    shutil.rmtree(staging, ignore_errors=True)
    _build(staging)
    tag = _tag()
    info = f"{NAME}-{version}.dist-info"
    wheel_name = f"{NAME}-{version}-{tag}.whl"
    files = []  # (path in the wheel, bytes)
    package = os.path.join(staging, NAME)
    names = sorted(os.listdir(package))
    # A shared library is installed as its file and a link named by its soname, the name the
    # extension asks for: the wheel holds the file's content under the link's name only.
    linked = {os.path.basename(os.path.realpath(os.path.join(package, n))) for n in names if os.path.islink(os.path.join(package, n))}
    for name in names:
        if name in linked:
            continue
        with open(os.path.realpath(os.path.join(package, name)), "rb") as f:
            files.append((f"{NAME}/{name}", f.read()))
    files += [
        (f"{info}/METADATA", _metadata().encode()),
        (f"{info}/WHEEL", f"Wheel-Version: 1.0\nGenerator: {NAME}_build\nRoot-Is-Purelib: false\nTag: {tag}\n".encode()),
        (f"{info}/top_level.txt", f"{NAME}\n".encode()),
    ]
    record = [_record_line(path, data) for path, data in files] + [f"{info}/RECORD,,"]
    with zipfile.ZipFile(os.path.join(wheel_directory, wheel_name), "w", zipfile.ZIP_DEFLATED) as wheel:
        for path, data in files:
            entry = zipfile.ZipInfo(path, date_time=(2020, 1, 1, 0, 0, 0))
            entry.external_attr = (0o755 if path.endswith(".so") or ".so." in path else 0o644) << 16
            wheel.writestr(entry, data, zipfile.ZIP_DEFLATED)
        wheel.writestr(f"{info}/RECORD", "\n".join(record) + "\n")
    shutil.rmtree(staging, ignore_errors=True)
    return wheel_name


def get_requires_for_build_wheel(config_settings=None):
    return []


def prepare_metadata_for_build_wheel(metadata_directory, config_settings=None):
    info = f"{NAME}-{_project()[0]}.dist-info"
    os.makedirs(os.path.join(metadata_directory, info), exist_ok=True)
    with open(os.path.join(metadata_directory, info, "METADATA"), "w", encoding="utf-8") as f:
        f.write(_metadata())
    return info
