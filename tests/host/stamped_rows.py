"""Rows that tell by their own texts whether they are whole, and inserts that take long."""

from module_host import Call, Column, Table

# An insert passes most of its time in the chains of the columns in the middle.
LINKED = 4
STAMPED = Table(
    "stamped",
    (
        Column("stamp"),
        *(Column(f"linked{number}", indexed=True) for number in range(LINKED)),
        Column("text", 255),
        Column("last"),
    ),
    max_rows=1_000_000,
)


def row(stamp):
    # In each chain behind all of the texts that were there at first.
    return "|".join([stamp, *[f"~{stamp}"] * LINKED, "t" * 200 + stamp, stamp])


FIRST_ROWS = [row(f"first{number}").replace("~", "") for number in range(20_000)]

# Of the writer that the header names: its number 1, 2 and so on.
INSERT_WITHOUT_END = Call(
    f"""while (1) {{
      $var(number) = $var(number) + 1;
      tarn_memdb_insert("stamped,{row("$hdr(X-Q).$var(number)")}");
    }}
    $var(never) = 1""",
    before="$var(number) = 0;",
)
