"""Rows that tell by their own texts whether they are whole, and inserts without end of them.

The keys in each column have a common ending, so that all of them are in one bucket's directory.
From 20,000 rows on it is enlarged and divided while the inserts go on, and so is the look-up of a
best match.
"""

from module_host import Call, Column, Table

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
    return "|".join([stamp, *[f"{stamp}@sip.example.org"] * LINKED, "t" * 200 + stamp, stamp])


FIRST_ROWS = [row(f"first{number}") for number in range(20_000)]

BEST_MATCH = "stamped," + "*|" * (LINKED + 2) + "none"

# Of the writer that the header names: its number 1, 2 and so on.
INSERT_WITHOUT_END = Call(
    f"""while (1) {{
      $var(number) = $var(number) + 1;
      tarn_memdb_insert("stamped,{row("$hdr(X-Q).$var(number)")}");
    }}
    $var(never) = 1""",
    before=f"""$var(number) = 0;
    tarn_memdb_select_best_match("{BEST_MATCH}", "$avp(a)", "{LINKED + 2}");""",
)
