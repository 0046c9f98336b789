"""What vsa shows in a terminal. The cases are skipped if there is no pseudo-terminal."""

import os
import re
import subprocess

from vsa_case import NETWORKS, VSA, ChainCase


class TerminalTest(ChainCase):
    def run_in_terminal(self, *arguments):
        """Returns what a terminal shows, after checking that all lines fit it."""
        try:
            shown, terminal = os.openpty()
        except (AttributeError, OSError) as error:
            self.skipTest(f"no pseudo-terminal: {error}")
        self.addCleanup(os.close, shown)
        subprocess.run([VSA, *map(str, arguments)], cwd=self.folder, stdout=terminal,
                       stderr=terminal, timeout=60)
        os.close(terminal)
        text = os.read(shown, 1 << 16).decode().replace("\r\n", "\n")
        self.check_width(text)
        # A slow run shows a progress bar, which is overwritten.
        return re.sub(r"[^\n]*\r", "", text)

    def test_lines_of_doctor(self):
        text = self.run_in_terminal("doctor", NETWORKS / "seg.xml")
        self.assertGreater(len(text.splitlines()), 10)

    def test_table_has_the_same_words_in_a_pipe(self):
        labels = [f"{colour} and many more words about it" for colour in ("red", "blue", "green")]
        self.use(self.detector, {**self.classifier, "classNames": labels}, self.persons,
                 self.reader)
        text = self.run_in_terminal("run", self.pipeline, "none.png", "blue.png", "-q")
        piped = self.vsa("run", self.pipeline, "blue.png", "-q")
        self.assertEqual(len(piped.splitlines()), 4, piped)
        self.assertNotRegex(piped, r"[\r\x1b]")
        self.assertEqual(text.split("objects\n")[1].split(), piped.split("objects\n")[1].split())
