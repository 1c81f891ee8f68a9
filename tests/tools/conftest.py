"""A directory of files for each test of a tool."""

import pytest
from check_files import CheckFiles
from convert_files import ConvertFiles


@pytest.fixture
def files(tmp_path, request):
    """For the tool that the test's file is named after."""
    kind = ConvertFiles if request.path.name.startswith("test_convert") else CheckFiles
    return kind(tmp_path)
