"""Tests of bench/compare.py and of what bench/peers.py does without OpenCV.

    bench_test.py FOLDER      FOLDER is bench/
"""

import json
import os
import subprocess
import sys
import tempfile
import unittest

BENCH = sys.argv.pop(1)


def run(script, *arguments, **environment):
    command = [sys.executable, os.path.join(BENCH, script), *arguments]
    return subprocess.run(command, capture_output=True, text=True, check=False, env={**os.environ, **environment})


def flow_file(epe=0.5, **runs):
    """A measurement of whole computations with one row; a phase for each keyword."""
    return {"context": {"processor": "A"}, "rows": [{"name": "64x48, threads 1", "epe": epe, "runs_s": runs}]}


def kernel_file(**times):
    runs = [
        {"run_name": f"{name}/64x48/manual_time", "run_type": "iteration", "ns_per_pixel": value}
        for name, values in times.items()
        for value in values
    ]
    return {"context": {}, "benchmarks": runs + [{"run_name": "mean", "run_type": "aggregate", "ns_per_pixel": 1.0}]}


class Compare(unittest.TestCase):
    def compare(self, old, new):
        """Exit status, word of each row by the end of its name, and everything printed."""
        with tempfile.TemporaryDirectory() as folder:
            paths = [os.path.join(folder, name) for name in ("old.json", "new.json")]
            for path, data in zip(paths, (old, new)):
                with open(path, "w", encoding="utf-8") as file:
                    file.write(data if isinstance(data, str) else json.dumps(data))
            done = run("compare.py", *paths)
        words = {}
        for line in done.stdout.splitlines():
            if line[:4] in ("SAME", "FAST", "SLOW", "AMBG"):
                words[line[6:].split("  ")[0].split(": ")[-1].split("/")[0]] = line[:4]
        return done.returncode, words, done.stdout + done.stderr

    def test_judges_times_by_medians_and_ranges(self):
        old = flow_file(same=[1.0, 1.1, 0.9], fast=[1.0, 1.1, 0.9], slow=[1.0, 1.1, 0.9], overlap=[1.0, 1.3, 0.9])
        new = flow_file(same=[1.02, 1.4, 0.9], fast=[0.5, 0.6, 0.89], slow=[1.2, 1.11, 1.3], overlap=[1.2, 1.25, 0.95])
        status, words, _ = self.compare(old, new)
        self.assertEqual(words, {"same": "SAME", "fast": "FAST", "slow": "SLOW", "overlap": "AMBG"})
        self.assertEqual(status, 1)
        self.assertEqual(self.compare(old, old)[0], 0)

    def test_one_run_on_a_side_proves_nothing(self):
        status, words, _ = self.compare(flow_file(total=[1.0]), flow_file(total=[2.0]))
        self.assertEqual((status, words), (0, {"total": "AMBG"}))

    def test_says_what_it_leaves_out_and_what_differs(self):
        old, new = flow_file(total=[1.0], warp=[0.00001], old=[1.0]), flow_file(total=[1.0], warp=[0.00002], new=[1.0])
        new["context"]["processor"] = "B"
        status, words, text = self.compare(old, new)
        self.assertEqual((status, words), (0, {"total": "SAME"}))
        for part in ("1 rows left out", "only in old: 64x48, threads 1: old", "only in new: 64x48, threads 1: new",
                     "careful: processor differs: A and B"):
            self.assertIn(part, text)

    def test_a_changed_error_fails(self):
        status, _, text = self.compare(flow_file(0.5, total=[1.0]), flow_file(0.6, total=[1.0]))
        self.assertEqual(status, 1)
        self.assertIn("end-point error of 64x48, threads 1 changed: 0.500000 to 0.600000", text)

    def test_kernels_without_the_packages_own_means(self):
        status, words, _ = self.compare(kernel_file(warp=[3.0, 3.1], solve=[2.0, 2.1]),
                                        kernel_file(warp=[2.0, 2.2], solve=[2.0, 2.1]))
        self.assertEqual((status, words), (0, {"warp": "FAST", "solve": "SAME"}))

    def test_instruction_counts_are_exact_to_a_thousandth(self):
        old = {"instructions": {"a": 1000000, "b": 1000000, "c": 1000000}}
        new = {"instructions": {"a": 1000900, "b": 1001100, "c": 998000}}
        status, words, _ = self.compare(old, new)
        self.assertEqual((status, words), (1, {"a": "SAME", "b": "SLOW", "c": "FAST"}))

    def test_refuses_what_cannot_be_compared(self):
        flow = flow_file(total=[1.0])
        for other in ("{", "[]", "{}", '{"rows": [{"name": "a"}]}', '{"rows": 3}', flow_file(total=[]),
                      kernel_file(warp=[1.0]), flow_file(other=[1.0])):
            status, words, text = self.compare(flow, other)
            self.assertEqual((status, words), (2, {}), other)
            self.assertTrue(text.startswith("compare: "), text)


class Peers(unittest.TestCase):
    def test_without_opencv_it_says_so_and_succeeds(self):
        with tempfile.TemporaryDirectory() as folder:
            with open(os.path.join(folder, "cv2.py"), "w", encoding="utf-8") as file:
                file.write("raise ImportError\n")
            done = run("peers.py", PYTHONPATH=folder)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertEqual(done.stdout.count("\n"), 1)
        self.assertIn("cv2 is not installed", done.stdout)


if __name__ == "__main__":
    unittest.main()
