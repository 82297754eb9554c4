"""Sequences: arrays, files by the tool, and a cluster."""

import hashlib
import json
import os
import signal
import subprocess
from pathlib import Path

import numpy as np
import pytest
from conftest import scene

import tarvo

ROOT = Path(__file__).parents[2]


@pytest.fixture(scope="module")
def frames(tmp_path_factory):
    """Six pictures as arrays and, with the same values, as files."""
    folder = tmp_path_factory.mktemp("frames")
    arrays = [scene(48, 64, 1.5 * k, 0.5 * k) for k in range(6)]
    for k, array in enumerate(arrays):
        (folder / f"{k:06}.ppm").write_bytes(b"P6\n64 48\n255\n" + array.tobytes())
    return arrays, folder


def contents(folder):
    return {path.name: path.read_bytes() for path in sorted(Path(folder).glob("*.flo"))}


def test_stream_gives_the_flows_of_pairs(frames):
    arrays, _ = frames
    results = list(tarvo.stream(iter(arrays), preset="fast", backward=True))
    assert len(results) == 5
    for result, first, second in zip(results, arrays, arrays[1:]):
        forward, backward = tarvo.flow(first, second, preset="fast", backward=True)
        assert np.array_equal(result.forward, forward) and np.array_equal(result.backward, backward)
    with pytest.raises(ValueError, match="frames: 1 of them make no pair"):
        list(tarvo.stream(arrays[:1]))


def test_write_sequence_of_files_and_arrays(frames, tmp_path):
    arrays, folder = frames
    told = []
    done = tarvo.write_sequence(folder, tmp_path / "a", preset="fast", alpha=9, progress=told.append)
    assert (done.pairs, done.done, done.failed, done.errors) == (5, 5, 0, {})
    assert sorted(line["pair"] for line in told) == list(range(5))
    for given in (sorted(folder.iterdir()), iter(arrays), (a.astype(np.uint16) * 257 for a in arrays)):
        out = tmp_path / str(type(given))
        tarvo.write_sequence(given, out, preset="fast", alpha=9)
        assert contents(out) == contents(tmp_path / "a")
    assert tarvo.write_sequence(folder, tmp_path / "a", preset="fast", alpha=9, resume=True).skipped == 5
    with pytest.raises(ValueError, match="alpha 9.0, now 8.0"):
        tarvo.write_sequence(folder, tmp_path / "a", preset="fast", alpha=8, resume=True)
    with pytest.raises(RuntimeError, match="no such file"):
        tarvo.write_sequence(folder / "none", tmp_path / "b")
    with pytest.raises(ValueError, match=r"frames\[1\] must be uint8 or uint16"):
        tarvo.write_sequence([arrays[0], arrays[1].astype(np.float32)], tmp_path / "b", preset="fast")
    (folder / "000006.ppm").write_bytes(b"P6 cut")
    try:
        failed = tarvo.write_sequence(folder, tmp_path / "c", preset="fast")
    finally:
        (folder / "000006.ppm").unlink()
    assert (failed.done, failed.failed) == (5, 1) and "is damaged" in failed.errors[5]


def test_lines_of_a_sequence_fit_their_schema(frames, tool, tmp_path):
    jsonschema = pytest.importorskip("jsonschema")
    schema = json.loads((ROOT / "docs" / "sequence.schema.json").read_text())
    (tmp_path / "in").mkdir()
    for path in frames[1].iterdir():
        (tmp_path / "in" / path.name).write_bytes(path.read_bytes())
    (tmp_path / "in" / "000003.ppm").write_bytes(b"P6 cut")
    command = [tool, "sequence", "--json", "--preset", "fast", "--direction", "both", "--occlusion", "--resume"]
    for _ in range(2):
        run = subprocess.run([*command, tmp_path / "in", "-o", tmp_path / "out"], capture_output=True, text=True)
        lines = [json.loads(line) for line in run.stdout.splitlines()]
        assert len(lines) == 6 and "summary" in lines[-1]
        for line in lines:
            jsonschema.validate(line, schema)
        for line in (tmp_path / "out" / "tarvo.jsonl").read_text().splitlines():
            jsonschema.validate(json.loads(line), schema)
    with pytest.raises(jsonschema.ValidationError):
        jsonschema.validate({**lines[0], "state": "perhaps"}, schema)


def test_pairs_on_a_cluster_of_which_a_worker_is_killed(frames, tmp_path):
    distributed = pytest.importorskip("distributed")
    from tarvo.cluster import map_pairs

    files = sorted(frames[1].iterdir())
    pairs = list(zip(files, files[1:]))
    tarvo.write_sequence(frames[1], tmp_path / "alone", final_passes=40)
    with distributed.LocalCluster(2, threads_per_worker=1, dashboard_address=None) as cluster:
        with distributed.Client(cluster) as client:
            futures = map_pairs(pairs, tmp_path / "out", client=client, block=2, final_passes=40)
            assert len(futures) == 3
            victim = next(iter(client.run(os.getpid).values()))
            os.kill(victim, signal.SIGKILL)
            written = [one for block in client.gather(futures) for one in block]
    assert [Path(one.pair[0]).name for one in written] == [path.name for path in files[:-1]]
    assert contents(tmp_path / "out") == contents(tmp_path / "alone")
    for one in written:
        assert one.sha256 == hashlib.sha256(Path(one.path).read_bytes()).hexdigest()
    with pytest.raises(ValueError, match="would both be"):
        map_pairs([pairs[0], pairs[0]], tmp_path / "out", client=client)
