"""What the tests share: the programs beside the module under test (paths from ctest's environment), the
inputs, and the kernel stand-in's leak report, which must be empty after every test."""

import ctypes
import glob
import os
import subprocess

import pytest

TARNVIEW = os.environ["TARNVIEW"]
SHARED = os.environ["TARN_SHARED_DIR"]
SAMPLES = os.path.join(os.path.dirname(__file__), "..", "..", "samples")


def corpus(kind):
    return sorted(glob.glob(os.path.join(SHARED, "corpus", kind, "*." + kind)))


def tarnview(*args, check=True):
    return subprocess.run([TARNVIEW, *args], capture_output=True, check=check, env=dict(os.environ, TZ="UTC"))


@pytest.fixture(scope="session")
def synthetic_store(tmp_path_factory):
    """A store written by the fixture writers: several folders, ANSI strings, permute encoding."""
    path = str(tmp_path_factory.mktemp("store") / "made.pst")
    subprocess.run([os.environ["MAKE_STORE"], "--messages", "40", "--folders", "3", "--ansi", "--encoding",
                    "permute", path], check=True, capture_output=True)
    return path


@pytest.fixture(autouse=True)
def kernel_leak_report():
    kernel = ctypes.CDLL(os.environ["TARNKRN_LIBRARY"])
    kernel.krnctlLeakReport.restype = ctypes.c_size_t
    kernel.krnctlReset()
    yield
    report = ctypes.create_string_buffer(1 << 16)
    length = kernel.krnctlLeakReport(report, len(report))
    kernel.krnctlReset()
    assert length == 0, report.value.decode(errors="replace")
