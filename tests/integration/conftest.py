import contextlib

import pytest

from harness import PID_FILE, shm_blocks
from real_servers import Redis


@pytest.fixture(autouse=True)
def nothing_left_behind():
    """Every test ends with the pid file and root's shared memory gone. A block without a key is gone, too, once it is
    detached."""
    def blocks():
        return {key for key, block in shm_blocks().items() if key and block["owner"] == 0}
    before = blocks()
    yield
    left = PID_FILE.exists(), blocks() - before
    PID_FILE.unlink(missing_ok=True)
    assert left == (False, set())


@pytest.fixture(scope="module")
def redis():
    with contextlib.closing(Redis()) as server:
        yield server
