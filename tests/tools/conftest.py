"""A directory of files for each test of the tool."""

import pytest
from check_files import CheckFiles


@pytest.fixture
def files(tmp_path):
    return CheckFiles(tmp_path)
