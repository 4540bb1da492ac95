#!/usr/bin/python3
"""Makes the "Lumaxis Sans" Regular and Bold faces from Debian's Open Sans (Apache-2.0).

Subset to Latin-1, names rewritten, timestamps fixed so that every build writes the same bytes.
"""
import argparse
import sys

from fontTools import subset
from fontTools.ttLib import TTFont

FAMILY = "Lumaxis Sans"
# 2026-11-01 00:00:00 UTC in the font epoch (seconds since 1904-01-01).
FIXED_TIME = 3_844_886_400
LATIN1 = list(range(0x20, 0x7F)) + list(range(0xA0, 0x100))


def make_face(source: str, style: str, output: str) -> None:
    options = subset.Options()
    options.layout_features = ["*"]
    options.name_IDs = ["*"]
    options.name_languages = ["*"]
    options.notdef_outline = True
    options.recalc_timestamp = False
    font = TTFont(source, recalcTimestamp=False)
    subsetter = subset.Subsetter(options)
    subsetter.populate(unicodes=LATIN1)
    subsetter.subset(font)

    postscript = FAMILY.replace(" ", "") + "-" + style
    names = {
        1: FAMILY,
        2: style,
        3: f"{postscript};1.0",
        4: f"{FAMILY} {style}",
        6: postscript,
        16: FAMILY,
        17: style,
    }
    table = font["name"]
    for record in list(table.names):
        if record.nameID in (1, 2, 3, 4, 6, 16, 17, 18, 21, 22):
            table.removeNames(nameID=record.nameID)
    for name_id, text in names.items():
        table.setName(text, name_id, 3, 1, 0x409)
        table.setName(text, name_id, 1, 0, 0)

    font["head"].created = FIXED_TIME
    font["head"].modified = FIXED_TIME
    font.save(output, reorderTables=True)


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--regular", required=True, help="source of the regular face")
    parser.add_argument("--bold", required=True, help="source of the bold face")
    parser.add_argument("--out-dir", required=True)
    args = parser.parse_args()
    make_face(args.regular, "Regular", f"{args.out_dir}/LumaxisSans-Regular.otf")
    make_face(args.bold, "Bold", f"{args.out_dir}/LumaxisSans-Bold.otf")
    return 0


if __name__ == "__main__":
    sys.exit(main())
