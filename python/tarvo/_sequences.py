"""Many pictures one after another: their flows as arrays, or in files by the tool."""

from __future__ import annotations

import json
import os
import subprocess
import threading
from collections.abc import Iterable, Iterator, Mapping
from dataclasses import dataclass
from typing import IO, TYPE_CHECKING, Any, Callable, Literal

import numpy as np

from tarvo._arrays import ArrayLike, Range, as_array
from tarvo._flow import Result, compute
from tarvo._options import Options, Preset
from tarvo._tool import tool_path

if TYPE_CHECKING:
    from typing_extensions import Unpack

@dataclass(frozen=True)
class Summary:
    """What write_sequence has done.

    Attributes:
        pairs: all of them.
        done, skipped, failed: computed now, there already, and not computed.
        cuts: pairs whose frames show different scenes.
        seconds: wall-clock time.
        errors: why each failed pair did.
    """

    pairs: int
    done: int
    skipped: int
    failed: int
    cuts: int
    seconds: float
    errors: dict[int, str]


def stream(
    frames: Iterable[ArrayLike],
    *,
    preset: Preset = "standard",
    backward: bool = False,
    occlusion: bool = False,
    matches: bool = True,
    range: Range | None = None,
    **options: Unpack[Options],
) -> Iterator[Result]:
    """The flow from each frame to the next, when it is asked for: of N frames N - 1 results.

    Args:
        frames: pictures of one size, as compute takes them; two are kept at a time.
        preset, backward, occlusion, matches, range, options: see compute.

    Raises:
        TypeError, ValueError: as compute; fewer than two frames.

    >>> import numpy as np, tarvo
    >>> picture = np.random.default_rng(1).integers(0, 256, (40, 50, 3), dtype=np.uint8)
    >>> for result in tarvo.stream(np.roll(picture, k, axis=1) for k in range(3)):
    ...     print(result.forward.shape, round(float(np.median(result.forward[..., 0])), 1))
    (40, 50, 2) 1.0
    (40, 50, 2) 1.0
    """
    switches: Any = {"backward": backward, "occlusion": occlusion, "matches": matches, "range": range}
    before, count = None, 0
    for count, frame in enumerate(frames, 1):
        if before is not None:
            yield compute(before, frame, preset=preset, **switches, **options)
        before = frame
    if count < 2:
        raise ValueError(f"frames: {count} of them make no pair")


def write_sequence(
    frames: str | os.PathLike[str] | Iterable[str | os.PathLike[str]] | Iterable[ArrayLike],
    folder: str | os.PathLike[str],
    *,
    direction: Literal["forward", "backward", "both"] = "forward",
    occlusion: bool = False,
    preset: Preset = "standard",
    matches: bool = True,
    format: str = "flo",
    step: int = 1,
    scale: float = 1.0,
    resume: bool = False,
    redo: bool = False,
    jobs: int | None = None,
    progress: Callable[[dict[str, Any]], Any] | None = None,
    **options: Unpack[Options],
) -> Summary:
    """Writes the flow from each frame to the next into a folder, by the command ``tarvo sequence``.

    What is done is kept in folder/tarvo.jsonl, so that an interrupted call can be taken up with resume.

    Args:
        frames: a folder of pictures, a pattern like "shot.%04d.png", a list of files (.txt), several paths, or
            arrays (uint8 or uint16; grey, RGB or RGBA) one after another.
        folder: for the results, NAME.flo of each pair, named after its first frame (arrays: 000000, ...);
            backward flows in its folder "backward", hidden pixels as pictures in "occlusion". It is made.
        direction: to the next frame, from it, or both.
        occlusion: also write what of a frame is hidden in the next.
        format: of the flow files: "flo", "png", "pfm", "npy", "npz", "npz16", "exr" ... (docs/formats.md).
        step: use every so many frames.
        scale: shrink the frames first, above 0 and up to 1; flows are of the shrunk frames.
        resume: go on with a run before. redo: the same, and replace what was made of other settings or frames.
        jobs: processes; None: one per processor on the CPU, one for arrays and on a GPU.
        progress: called after each pair with what is known of it: "pair", "state" ("done", "skipped" or
            "failed"), "frames", "mean" and "p99" [pixels], "cut", "same", "outputs", "error" ...
        preset, matches, options: see compute.

    Returns:
        The counts. A pair that fails does not end the others.

    Raises:
        ValueError: wrong arguments, or results of another run where neither resume nor redo is given.
        RuntimeError: the command failed as a whole.
    """
    arguments = _arguments(direction, occlusion, preset, matches, format, step, scale, resume, redo, jobs, options)
    if isinstance(frames, (str, os.PathLike)):
        return _run([_path(frames)], folder, arguments, None, progress)
    if isinstance(frames, (list, tuple)) and frames and all(isinstance(f, (str, os.PathLike)) for f in frames):
        return _run([_path(f) for f in frames], folder, arguments, None, progress)
    return _run(["-"], folder, arguments, frames, progress)


def _path(path: Any) -> str:
    name = os.fspath(path)
    return os.path.abspath(name) if name == "-" else str(name)


def _arguments(
    direction: str,
    occlusion: bool,
    preset: str,
    matches: bool,
    format: str,
    step: int,
    scale: float,
    resume: bool,
    redo: bool,
    jobs: int | None,
    options: Mapping[str, object],
) -> list[str]:
    words = ["--direction", direction, "--preset", preset, "--format", format, "--step", str(step), "--scale", str(scale)]
    switches = {"--occlusion": occlusion, "--no-matches": not matches, "--resume": resume, "--redo": redo}
    words += [name for name, on in switches.items() if on]
    words += ["--jobs", str(jobs)] if jobs is not None else []
    for name, value in options.items():
        words += ["--" + name.replace("_", "-"), str(value)]
    return words


def _run(
    inputs: list[str],
    folder: str | os.PathLike[str],
    arguments: list[str],
    arrays: Iterable[Any] | None,
    progress: Callable[[dict[str, Any]], Any] | None,
) -> Summary:
    output = os.path.abspath(os.fspath(folder))  # a path may look like an option
    command = [str(tool_path()), "sequence", *arguments, "--json", "-o", output, "--", *inputs]
    feeding = subprocess.PIPE if arrays is not None else subprocess.DEVNULL
    errors: dict[int, str] = {}
    summary: dict[str, Any] | None = None
    with subprocess.Popen(command, stdin=feeding, stdout=subprocess.PIPE, stderr=subprocess.PIPE) as process:
        assert process.stdout and process.stderr
        said: list[bytes] = []
        listener = threading.Thread(target=lambda: said.extend(process.stderr or ()))
        feeder = _Feeder(process.stdin, arrays or ())
        try:
            listener.start()
            feeder.start()
            for line in process.stdout:
                told = json.loads(line)
                summary = told.get("summary", summary)
                if told.get("state") == "failed":
                    errors[told["pair"]] = told["error"]
                if progress is not None and "pair" in told:
                    progress(told)
            feeder.join()
        except BaseException:
            process.terminate()
            raise
        finally:
            listener.join()
    if feeder.error is not None:
        raise feeder.error
    text = b"".join(said).decode(errors="replace").strip().removeprefix("tarvo: ")
    if process.returncode == 2:
        raise ValueError(text)
    if summary is None or (process.returncode != 0 and not errors):
        raise RuntimeError(text)
    return Summary(**summary, errors=errors)


class _Feeder(threading.Thread):
    """Writes arrays as PPM pictures to a process."""

    def __init__(self, pipe: IO[bytes] | None, arrays: Iterable[Any]) -> None:
        super().__init__(daemon=True)
        self.error: BaseException | None = None
        self._pipe = pipe
        self._arrays = arrays

    def run(self) -> None:
        if self._pipe is None:
            return
        try:
            with self._pipe:
                for number, frame in enumerate(self._arrays):
                    self._pipe.write(_pnm(frame, f"frames[{number}]"))
        except BrokenPipeError:
            pass  # the process tells why it ended
        except BaseException as error:
            self.error = error


def _pnm(frame: object, name: str) -> bytes:
    """A picture in the formats PGM or PPM."""
    array = as_array(frame, name)
    if array.dtype not in (np.uint8, np.uint16) or array.ndim not in (2, 3) or array.shape[2:] not in ((), (1,), (3,), (4,)):
        raise ValueError(f"{name} must be uint8 or uint16, H x W, H x W x 3 or H x W x 4, got {array.dtype} {array.shape}")
    array = array[..., :3] if array.ndim == 3 else array  # transparency is dropped
    height, width = array.shape[:2]
    kind, most = ("P6" if array.shape[2:] == (3,) else "P5"), (255 if array.dtype == np.uint8 else 65535)
    return f"{kind}\n{width} {height}\n{most}\n".encode() + array.astype(array.dtype.newbyteorder(">")).tobytes()
