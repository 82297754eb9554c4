"""How computations behave beside threads, signals, processes, faults and a finite memory."""

import multiprocessing
import os
import signal
import subprocess
import sys
import threading

import numpy as np
import pytest
from conftest import scene

import tarvo
from tarvo import _core

SMALL = scene(48, 64), scene(48, 64, 1.0, 0.5)


def resident():
    with open("/proc/self/statm") as file:
        return int(file.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


@pytest.mark.parametrize("threads", [1, 2])
@pytest.mark.parametrize("stage", ["matching", "solving"])
def test_interrupt_ends_a_large_computation_and_the_next_one_is_right(pair, stage, threads):
    expected = tarvo.flow(*pair)
    height, width = 2160, 3840
    tile = scene(height // 4, width // 4)
    first = np.tile(tile, (4, 4, 1))
    second = np.roll(first, 7, axis=1)
    calls = []

    def interrupt(delay):
        threading.Timer(delay, os.kill, (os.getpid(), signal.SIGINT)).start()

    def progress(done, total):
        calls.append((done, total))
        if stage == "solving" and done == total - 3:  # a pass at full resolution
            interrupt(0.2)

    tarvo.set_threads(threads)
    in_use = _core.memory_use()[0]
    if stage == "matching":
        interrupt(0.8)
    with pytest.raises(KeyboardInterrupt):
        tarvo.flow(first, second, preset="fast", final_passes=3, progress=progress)
    if stage == "matching":
        assert not calls
    else:
        assert calls[-1][0] < calls[-1][1]
    assert _core.memory_use()[0] == in_use
    tarvo.set_threads(2)
    assert np.array_equal(tarvo.flow(*pair), expected)


def test_threads_take_turns_and_hear_of_their_own_progress():
    other = SMALL[1], SMALL[0]
    expected = [tarvo.flow(*pictures, preset=preset) for pictures, preset in ((SMALL, "standard"), (other, "fast"))]
    failures = []

    def work(index):
        pictures, preset = ((SMALL, "standard"), (other, "fast"))[index]
        for _ in range(200):
            calls = []
            flow = tarvo.flow(*pictures, preset=preset, progress=lambda done, total: calls.append((done, total)))
            if not np.array_equal(flow, expected[index]) or calls != [(k + 1, len(calls)) for k in range(len(calls))]:
                failures.append((index, calls))

    workers = [threading.Thread(target=work, args=(index,)) for index in (0, 1)]
    for worker in workers:
        worker.start()
    for worker in workers:
        worker.join(timeout=300)
    assert not failures and not any(worker.is_alive() for worker in workers)
    assert not np.array_equal(*expected)


def test_what_progress_raises_ends_that_call_alone():
    def fail(done, total):
        raise LookupError(done)

    with pytest.raises(LookupError, match="1"):
        tarvo.flow(*SMALL, progress=fail)
    with pytest.raises(RuntimeError, match="callback"):
        tarvo.flow(*SMALL, progress=lambda done, total: tarvo.flow(*SMALL))
    assert tarvo.flow(*SMALL).shape == (48, 64, 2)


def test_device_errors_are_exceptions_and_the_next_call_is_right(capfd):
    expected = tarvo.flow(*SMALL)
    _core.fail_call(0)
    tarvo.flow(*SMALL)
    calls = _core.fail_call(0)
    for call in sorted({1, 2, 3, 5, 8, calls // 2, calls}):
        _core.fail_call(call)
        with pytest.raises(tarvo.DeviceError):
            tarvo.flow(*SMALL)
        assert np.array_equal(tarvo.flow(*SMALL), expected)
    assert capfd.readouterr() == ("", "")


def test_memory_stays_flat_over_a_thousand_calls():
    for call in range(1000):
        if call == 100:
            before = resident()
        tarvo.flow(*SMALL, preset="fast")
    assert resident() - before < 2**20


def _child_flow(_):
    return tarvo.flow(*SMALL)


@pytest.mark.parametrize("method", ["fork", "spawn"])
def test_child_processes_compute_the_same(method):
    expected = tarvo.flow(*SMALL)
    with multiprocessing.get_context(method).Pool(2) as pool:
        for flow in pool.map_async(_child_flow, range(2)).get(timeout=120):
            assert np.array_equal(flow, expected)


def test_import_prints_nothing_starts_no_thread_and_leaves_quietly():
    program = """
import os, numpy
count = lambda: len(os.listdir("/proc/self/task"))
before = count()
import tarvo
assert count() == before and not any("libcuda" in line for line in open("/proc/self/maps"))
flow = tarvo.flow(*[numpy.zeros((40, 50), numpy.uint8)] * 2)
assert not flow.any()
tarvo.kept = flow  # outlives the module's own values
"""
    run = subprocess.run([sys.executable, "-c", program], capture_output=True, text=True, timeout=60)
    assert (run.returncode, run.stdout, run.stderr) == (0, "", "")
