import pytest

from tarn_host import PID_FILE


@pytest.fixture(autouse=True)
def nothing_left_behind():
    """Every test ends with the pid file gone."""
    yield
    left = PID_FILE.exists()
    PID_FILE.unlink(missing_ok=True)
    assert not left, "the pid file was left behind"
