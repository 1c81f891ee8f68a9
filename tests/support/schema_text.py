"""The text of a schema, composed from its tables; tests/support/schema_text.h is the one for C++.

Columns are lines, or what prints as one: name, length, and 1 if it is indexed.
"""


def head(files, backups, count):
    """The three lines ahead of the tables; the folders end with a slash."""
    return f"BASE_DIR={files}\nBASE_BACKUP_DIR={backups}\nNUM_TABLE={count}\n"


def table(name, columns, ports=None, **keys):
    """A table's block, with its keys in the order that the module wants.

    `ports` is (range word, internal column, external column). The keys that are given stand in
    place of the usual values, and one that is given as None is left out.
    """
    word, internal, external = ports or (None, None, None)
    values = {
        "TABLE_NAME": name,
        "FLAG": int(ports is not None),
        "RANGE": word,
        "INT_PORT_FIELD": internal,
        "EXT_PORT_FIELD": external,
        "LOG_TAG": None,
        "USE_INDEX": 0,
        "DUPLICATED_DATA_CHECK": 0,
        "MAX_ROWS": 100,
        "NUM_FIELDS": len(columns),
        "FILE_NAME": f"{name}.tbl",
    }
    unknown = keys.keys() - values.keys()
    assert not unknown, unknown
    values |= keys
    file_name = values.pop("FILE_NAME")
    lines = [f"{key}={value}" for key, value in values.items() if value is not None]
    lines += [str(column) for column in columns]
    if file_name is not None:
        lines.append(f"FILE_NAME={file_name}")
    return "\n".join(lines) + "\n"


def schema(files, backups, tables):
    """The whole text, from blocks or what prints as one."""
    return head(files, backups, len(tables)) + "".join(str(block) for block in tables)
