"""The guide is whole: all that the module has is in it, every example runs, every link leads."""

import os
import re
import subprocess

import guide_book

SHELL = (guide_book.ROOT / "script" / "tarn_memdb.cpp").read_text()
TESTS = guide_book.ROOT / "tests"
COMMANDS = (guide_book.ROOT / "rpc" / "rpc_commands.cpp").read_text()


def exported_functions():
    """Names and numbers of parameters, from the exported table."""
    rows = re.findall(r'\{"(\w+)",\s*\w+,\s*(\d), \w+,\s*\w+,\s*ROUTES\}', SHELL)
    return sorted((name, int(count)) for name, count in rows)


def kemi_functions():
    """Names and numbers of parameters of the functions for other script languages."""
    room = guide_book.ROOT / "script" / "kemi"
    exported = (room / "kemi_exports.cpp").read_text()
    rows = dict(re.findall(r'kemi_row\(MODULE, "(\w+)",\s*(\w+)\)', exported))
    declared = re.findall(r"\b(kemi_\w+)\((.*?)\);", (room / "kemi_functions.h").read_text(), re.S)
    counts = {name: parameters.count(",") for name, parameters in declared}
    return sorted((name, counts[function]) for name, function in rows.items())


def exported_parameters():
    return re.findall(r'\{"(\w+)", PARAM_(STRING|INT), ', SHELL)


def exported_commands():
    return re.findall(r'\{"(tarn_memdb\.\w+)", ', COMMANDS)


def titles(page, level=3):
    return [section for section in guide_book.page(page) if section.level == level]


def anchor(title):
    """The anchor that GitHub gives a heading."""
    return re.sub(r"[^\w\- ]", "", title.lower()).replace(" ", "-")


def test_each_exported_function_has_a_section_with_its_parameters():
    sections = [re.fullmatch(r"(\w+)\((.*)\)", section.title) for section in titles("functions.md")]
    told = sorted(
        (match[1], len(match[2].split(", ")) if match[2] else 0) for match in sections if match
    )
    assert told == exported_functions() and len(told) == 29


def parameters_of(section):
    return [name for name in re.search(r"\((.*)\)", section.title)[1].split(", ") if name]


def test_each_function_for_other_languages_has_a_section_with_an_example():
    page = guide_book.KEMI_PAGE
    sections = [section for section in titles(page) if re.fullmatch(r"\w+\(.*\)", section.title)]
    told = [(section.title.split("(")[0], len(parameters_of(section))) for section in sections]
    assert sorted(told) == kemi_functions() and len(told) == 24
    for section in sections:
        text = guide_book.text_of(section)
        assert f"KSR.tarn_memdb.{section.title.split('(')[0]}(" in text, section.name
        assert section.speaks and "\nGives " in text, section.name
        for name in parameters_of(section):
            assert f"*{name}*" in text, (section.name, name)


def test_each_function_tells_its_parameters_result_and_routes():
    for section in titles("functions.md"):
        text = guide_book.text_of(section)
        names = parameters_of(section)
        for name in names:
            assert f"*{name}*" in text, (section.name, name)
        assert "\nReturns " in text or "Returns 1." in text, section.name
        assert "\nRoutes: all but `onsend_route`.\n" in text or not names, section.name


def test_each_parameter_has_a_section_with_type_and_default():
    kinds = {"STRING": "string", "INT": "integer"}
    wanted = sorted(f"{name} ({kinds[kind]})" for name, kind in exported_parameters())
    assert sorted(section.title for section in titles("parameters.md")) == wanted
    assert len(wanted) == 12
    for section in titles("parameters.md"):
        assert "\n*Default: " in guide_book.text_of(section), section.name


def test_each_command_has_a_section():
    told = [section.title.split(" ")[0] for section in titles("rpc.md")]
    assert sorted(told) == sorted(exported_commands()) and len(told) == 15


def test_each_section_on_something_exported_has_an_example_that_runs():
    for page in ("functions.md", "parameters.md", "rpc.md"):
        for section in titles(page):
            assert section.runs, section.name


def test_each_page_with_examples_is_run_by_ctest():
    pages = [name for name in guide_book.PAGES if any(s.runs for s in guide_book.page(name))]
    listing = (guide_book.ROOT / "tests" / "docs" / "CMakeLists.txt").read_text()
    run = re.search(r"foreach\(page ([^)]*)\)", listing)[1].split()
    assert [f"{name}.md" for name in run] == pages


def test_each_code_block_is_run_or_plainly_for_reading():
    known = guide_book.RUN + guide_book.LANGUAGES + guide_book.FILES + guide_book.READ
    for section in guide_book.guide():
        for block in section.blocks:
            assert block.kind in known, f"{section.page}:{block.line}: {block.kind}"
            if block.kind in guide_book.FILES:
                assert block.marked("file"), f"{section.page}:{block.line}: no file name"


def test_each_mark_is_known():
    known = {"file", "refused", "debug", "stopped", "restart", "request", "reply", "with"}
    for section in guide_book.guide():
        for block in section.blocks:
            assert {word for word, _ in block.marks} <= known, f"{section.page}:{block.line}"


def test_each_link_leads_somewhere():
    others = [guide_book.ROOT / name for name in ("README.md", "CHANGELOG.md", "tests/README.md")]
    for path in [*others, *guide_book.DOCS.glob("*.md")]:
        for target in re.findall(r"\]\(([^)]+)\)", guide_book.without_code(path)):
            file, _, place = target.partition("#")
            where = (path.parent / file).resolve() if file else path
            assert where.exists(), f"{path.name}: {target}"
            if place:
                known = [anchor(s.title) for s in guide_book.sections(where)]
                assert place in known, f"{path.name}: {target}"


def test_each_example_of_the_page_on_tests_stands_in_a_test():
    examples = [
        (name, block.text)
        for section in guide_book.sections(TESTS / "README.md")
        for block in section.blocks
        if block.kind != "sh"
        for name in block.marked("file")
    ]
    assert len(examples) == 5
    for name, text in examples:
        assert f"\n{text}" in (TESTS / name).read_text(), name


def version():
    build = (guide_book.ROOT / "CMakeLists.txt").read_text()
    return re.search(r"project\(tarn_memdb VERSION (\S+)", build)[1]


def said(*command):
    done = subprocess.run(
        command, cwd=guide_book.ROOT, check=True, stdout=subprocess.PIPE, text=True
    )
    return done.stdout


def test_the_newest_change_and_the_tool_tell_the_version_of_the_build():
    changes = [section.title for section in guide_book.sections(guide_book.ROOT / "CHANGELOG.md")]
    assert changes == ["", "Changes", version(), "1.0.0"]
    assert said(os.environ["TARN_CHECK"], "--version").startswith(f"tarn-memdb-check {version()}, ")


def test_the_license_is_whole_and_told_in_one_place():
    text = (guide_book.ROOT / "LICENSE").read_text()
    wanted = ["GNU GENERAL PUBLIC LICENSE", "Version 2, June 1991"]
    assert [line.strip() for line in text.splitlines()[:2]] == wanted
    numbers = re.findall(r"(?m)^  (\d+)\. ", text)
    assert [int(number) for number in numbers] == list(range(13))
    assert text.endswith("Public License instead of this License.\n")
    mark = "SPDX-License-" + "Identifier: GPL-2.0-or-later"
    files = said("git", "ls-files", "--cached", "--others", "--exclude-standard").splitlines()
    naming = [name for name in files if mark.encode() in (guide_book.ROOT / name).read_bytes()]
    assert naming == ["README.md"]


def test_the_guides_contents_lead_from_what_people_search_for():
    (index,) = [section for section in guide_book.page("guide.md") if section.title == "I want to"]
    rows = [row for row in guide_book.text_of(index).splitlines() if "](" in row]
    for words in (
        "sizing",
        "expiry",
        "restore a backup",
        "restore a `.refused` file",
        "file rights",
        "upgrade the module or the server",
        "other script languages",
        "statistics",
        "several servers",
        "host versions",
        "indexes, and their cost",
    ):
        assert [row for row in rows if words in row.split("|")[1]], words
