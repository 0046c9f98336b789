#!/usr/bin/env python3
"""Compares the text recognised in images with the true text.

RESULTS is JSON Lines, one object per image:
  {"input": "path/NAME.png", "objects": [{"text": "...", ...}, ...]}
TRUTH is a folder with the true lines of each image in NAME.txt (UTF-8).

Spaces count like other characters, except that several in a row are one and
those at the ends of a line are ignored. Each true line is paired with at most
one recognised line, the most similar pairs first; lines with a similarity
below one half are not paired. The number of correct characters of a pair is
the length of the true line minus the edit distance (insertions, deletions,
substitutions) of the two lines; an unpaired true line has no correct
characters.
"""

import argparse
import json
import pathlib
import sys
import unicodedata


def single_spaced(text):
    return " ".join(text.split())


def edit_distance(a, b):
    row = list(range(len(b) + 1))
    for i, x in enumerate(a, 1):
        diagonal, row[0] = row[0], i
        for j, y in enumerate(b, 1):
            diagonal, row[j] = row[j], min(diagonal + (x != y), row[j] + 1, row[j - 1] + 1)
    return row[-1]


class Comparison:
    """The result for one image."""

    def __init__(self, name, true_lines, read_lines):
        self.name = name
        true = [line for line in map(single_spaced, true_lines) if line]
        read = [line for line in map(single_spaced, read_lines) if line]
        self.lines = len(true)
        self.characters = sum(map(len, true))
        candidates = []
        for i, a in enumerate(true):
            for j, b in enumerate(read):
                edits = edit_distance(a, b)
                similarity = 1 - edits / max(len(a), len(b))
                if similarity >= 0.5:
                    candidates.append((-similarity, i, j, edits))
        paired_true, paired_read = {}, set()
        for _, i, j, edits in sorted(candidates):
            if i not in paired_true and j not in paired_read:
                paired_true[i] = (j, edits)
                paired_read.add(j)
        self.found = len(paired_true)
        # Never negative: with a similarity of 0.5 or more there are at most as many edits as true
        # characters.
        self.right = sum(len(true[i]) - edits for i, (_, edits) in paired_true.items())
        self.misread = [(true[i], read[j]) for i, (j, edits) in sorted(paired_true.items())
                        if edits]
        self.missed = [line for i, line in enumerate(true) if i not in paired_true]
        self.extra = [line for j, line in enumerate(read) if j not in paired_read]


def read_results(stream):
    """Yields pairs of the image name, without folder and extension, and the recognised texts."""
    for number, line in enumerate(stream, 1):
        if not line.strip():
            continue
        try:
            frame = json.loads(line)
            name = pathlib.PurePath(frame["input"]).stem
            texts = [entry.get("text", "") for entry in frame["objects"]]
            if not all(isinstance(text, str) for text in texts):
                raise TypeError("a text is not a string")
        except (ValueError, KeyError, TypeError, AttributeError) as error:
            raise ValueError(f"line {number} of the results is not valid: {error!r}") from error
        yield name, texts


def read_true_texts(folder):
    texts = {path.stem: path.read_text(encoding="utf-8-sig").splitlines()
             for path in sorted(pathlib.Path(folder).glob("*.txt"))}
    if not any(single_spaced(line) for lines in texts.values() for line in lines):
        raise ValueError(f"no true text in {folder}")
    return texts


def compare(results, texts, only_given=False):
    """Returns a Comparison per result and, unless `only_given`, one per image without a result."""
    comparisons = []
    for name, read_lines in results:
        if name not in texts:
            raise ValueError(f"no true text {name}.txt")
        comparisons.append(Comparison(name, texts[name], read_lines))
    if not only_given:
        given = {comparison.name for comparison in comparisons}
        comparisons += [Comparison(name, texts[name], []) for name in texts if name not in given]
    return comparisons


def pad(text, columns):
    """Pads to a number of terminal columns; a Chinese character takes two."""
    width = sum(2 if unicodedata.east_asian_width(c) in "WF" else 1 for c in text)
    return text + " " * max(0, columns - width)


def correct_share(comparisons):
    characters = sum(c.characters for c in comparisons)
    return sum(c.right for c in comparisons) / characters if characters else 0.0


def print_report(comparisons, stream):
    def row(name, group):
        print(f"{pad(name, 24)} {sum(c.lines for c in group):7} {sum(c.found for c in group):7}"
              f" {sum(c.characters for c in group):11} {sum(c.right for c in group):7}"
              f" {100 * correct_share(group):8.2f} %", file=stream)

    print(f"{'image':24} {'lines':>7} {'found':>7} {'characters':>11} {'correct':>7} {'share':>10}",
          file=stream)
    for comparison in comparisons:
        row(comparison.name, [comparison])
    row("total", comparisons)
    for comparison in comparisons:
        if not (comparison.misread or comparison.missed or comparison.extra):
            continue
        print(f"\n{comparison.name}", file=stream)
        for true, read in comparison.misread:
            print(f"  true    {true}\n  read    {read}", file=stream)
        for line in comparison.missed:
            print(f"  missed  {line}", file=stream)
        for line in comparison.extra:
            print(f"  extra   {line}", file=stream)


def parse_share(text):
    try:
        value = float(text)
    except ValueError:
        value = -1
    if not 0 <= value <= 1:
        raise argparse.ArgumentTypeError("must be a number from 0 to 1")
    return value


def main(argv=None, stdin=None, stdout=None):
    stdin, stdout = stdin or sys.stdin, stdout or sys.stdout
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("results", metavar="RESULTS",
                        help="JSON Lines file, or - for standard input")
    parser.add_argument("truth", metavar="TRUTH", help="folder with the true texts")
    parser.add_argument("--minimum", type=parse_share, metavar="SHARE",
                        help="exit with 1 if the share (0 to 1) of correct characters is smaller")
    parser.add_argument("--only-given", action="store_true",
                        help="ignore images without a result; by default all their lines count "
                             "as missed")
    arguments = parser.parse_args(argv)
    try:
        texts = read_true_texts(arguments.truth)
        if arguments.results == "-":
            comparisons = compare(read_results(stdin), texts, arguments.only_given)
        else:
            with open(arguments.results, encoding="utf-8") as stream:
                comparisons = compare(read_results(stream), texts, arguments.only_given)
        if not comparisons:
            raise ValueError("there are no results")
    except (OSError, ValueError) as error:
        print(f"compare.py: {error}", file=sys.stderr)
        return 2
    print_report(comparisons, stdout)
    total = correct_share(comparisons)
    if arguments.minimum is not None and total < arguments.minimum:
        print(f"\n{100 * total:.2f} % is below the minimum of {100 * arguments.minimum:.2f} %",
              file=stdout)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
