"""The options of the programs: what the help texts name is completed by both shells and described in the manual."""

import re
import subprocess
from pathlib import Path

import pytest

from harness import BUILD

TREE = Path(__file__).parents[2]
COMPLETE = """source packaging/completion/"$1"; COMP_WORDS=("$1" -) COMP_CWORD=1
function=$(complete -p "$1"); function=${function##*-F } && ${function% *} && echo "${COMPREPLY[@]}\""""


def output(*command):
    return subprocess.run([str(word) for word in command], stdout=subprocess.PIPE, text=True, cwd=TREE).stdout


def options(text):
    return set(re.findall(r"(?<![\w-])--?[a-z][a-z-]*", text))


@pytest.mark.parametrize("program, page, unnamed", [
    ("tarn", "tarn.8", {"--showconfig"}), ("tarn-check", "tarn-check.1", set()),
    ("tarn-receive", "tarn-receive.1", set())])
def test_each_option_is_completed_and_described(program, page, unnamed):
    """The agent's help text does not name all."""
    expected = options(output(BUILD / program, "-h")) | unnamed
    assert len(expected) > 3
    assert options(output("bash", "-c", COMPLETE, "bash", program)) == expected
    assert options((TREE / "packaging/completion" / f"_{program}").read_text()) == expected
    assert expected <= options(re.sub(".\b", "", output("mandoc", "-Tascii", f"man/{page}")))
