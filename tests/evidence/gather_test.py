#!/usr/bin/env python3
"""Shows that the gatherer counts what it is told, writes nothing when a program complains, and keeps older lines.

The rule: the programs are small scripts here; nothing is built and docs/evidence.md is not touched.
"""
import sys
import tempfile
import unittest
from pathlib import Path

sys.dont_write_bytecode = True
sys.path.insert(0, str(Path(__file__).resolve().parent))
import gather  # noqa: E402

TELLS = "import os; open(os.environ['ZON_EVIDENCE'], 'a').write('{\"what\": \"kills\", \"count\": 1200, \"seed\": 3}\\n')"


def job(script, **environment):
    return gather.Job(script[:20], [sys.executable, "-c", script], environment, 1)


class Gatherer(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)

    def gathered(self, *jobs):
        gatherer = gather.Gatherer(jobs, self.folder)
        gatherer.run()
        return gatherer, gather.counted(self.folder / "counts")

    def test_counts_are_summed_over_programs(self):
        gatherer, counts = self.gathered(job(TELLS), job(TELLS))
        self.assertEqual(gatherer.failed, [])
        self.assertEqual(gather.sum_of(counts, ("kills",)), 2400)

    def test_parts_of_a_line_are_summed(self):
        counts = {"crash_states.first": 3, "crash_states.second": 4, "kills": 5}
        self.assertEqual(gather.sum_of(counts, ("crash_states.",)), 7)

    def test_a_program_that_complains_is_told(self):
        gatherer, _ = self.gathered(job("import sys; sys.exit(1)"), job(TELLS))
        self.assertEqual(len(gatherer.failed), 1)

    def test_a_program_that_may_not_is_no_complaint(self):
        gatherer, _ = self.gathered(job("import sys; print('no root'); sys.exit(77)"))
        self.assertEqual((gatherer.failed, gatherer.refused), ([], ["no root"]))

    def test_planted_faults_are_read_off_the_last_line(self):
        _, counts = self.gathered(job("print('41 of 42 planted faults caught')"))
        self.assertEqual((counts["planted.caught"], counts["planted.all"]), (41, 42))

    def test_a_line_without_a_count_stays_as_it_was(self):
        gather.DOCUMENT = self.folder / "evidence.md"
        first = gather.document({"kills": 1200}, 3, 4, [], {})
        gather.DOCUMENT.write_text(first, encoding="utf-8")
        second = gather.document({"forged files": 7}, 5, 4, [], gather.written_before())
        kept = [line for line in first.splitlines() if "1,200" in line]
        self.assertEqual(len(kept), 1)
        self.assertIn(kept[0], second.splitlines())
        self.assertIn("| 7 | 5 |", second)


if __name__ == "__main__":
    unittest.main()
