"""Checks of arrays: what callers pass becomes NumPy views, or an error that names argument and value."""

from __future__ import annotations

from typing import Any, Literal, Protocol, Tuple, Union

import numpy as np
import numpy.typing as npt

from tarvo import _core


class SupportsDLPack(Protocol):
    """Arrays of other libraries, e.g. PyTorch, on the CPU."""

    def __dlpack__(self, *, stream: Any = ...) -> Any: ...
    def __dlpack_device__(self) -> Tuple[int, int]: ...


class SupportsArray(Protocol):
    """What has an array interface, e.g. the pictures of Pillow."""

    @property
    def __array_interface__(self) -> dict[str, Any]: ...


Array = npt.NDArray[Any]
ArrayLike = Union[Array, SupportsDLPack, SupportsArray, memoryview]
Range = Union[float, Tuple[float, float]]

_DLPACK_CPU = 1


def as_array(value: object, name: str) -> Array:
    """A view of the caller's array; nothing is copied."""
    if isinstance(value, np.ma.MaskedArray):
        raise TypeError(f"{name} must be an array without a mask of its own, got MaskedArray; pass its .data, and mask=")
    if isinstance(value, np.ndarray):
        return value.view(np.ndarray)
    if isinstance(value, (bytes, bytearray, str)) or value is None:
        raise TypeError(f"{name} must be an array, got {_short(value)}")
    if hasattr(value, "__dlpack_device__"):
        device = value.__dlpack_device__()[0]
        if device != _DLPACK_CPU:
            raise TypeError(f"{name} must be an array on the CPU, got {_type(value)} on another device (kind {device})")
    try:
        if hasattr(value, "__dlpack__"):
            return np.from_dlpack(value)
        if hasattr(value, "__array_interface__") or hasattr(value, "__array__"):
            return np.asarray(value)
        return np.asarray(memoryview(value))  # type: ignore[arg-type]
    except (TypeError, ValueError, BufferError, RuntimeError) as error:
        raise TypeError(f"{name} must be an array, got {_type(value)}: {error}") from None


def picture(value: object, name: str, range: Range | None, mask: object, mask_name: str) -> _core.Picture:
    """A picture of a computation: pixels H x W x (1 or 3), the values of black and white, unknown pixels."""
    pixels = _pixels(value, name)
    black, white = _limits(pixels.dtype, name, range)
    ignore_nan = isinstance(mask, str)
    if isinstance(mask, str) and mask != "nan":
        raise ValueError(f'{mask_name} must be None, an array of bool or "nan", got {mask!r}')
    unknown = None if mask is None or isinstance(mask, str) else _mask(mask, mask_name, pixels.shape[:2])
    if pixels.dtype.kind == "f" or range is not None:
        ignore_nan = _check_values(pixels, name, (black, white), range, unknown, ignore_nan) or ignore_nan
    if pixels.dtype == np.float64 or pixels.dtype == np.float16:
        pixels = pixels.astype(np.float32)
    if not pixels.flags.aligned:
        pixels = pixels.copy()
    bytes_of_mask = None if unknown is None else unknown.view(np.uint8)
    return _core.Picture(pixels, black, white, bytes_of_mask, ignore_nan)


def flow_field(value: object, name: str) -> npt.NDArray[np.float32]:
    """A flow: H x W x 2 of floats."""
    array = as_array(value, name)
    if array.dtype.kind != "f" or not array.dtype.isnative:
        raise TypeError(f"{name} must be an array of float32, got {_dtype(array)}")
    if array.ndim != 3 or array.shape[2] != 2 or array.size == 0:
        raise ValueError(f"{name} must have the shape H x W x 2, got {array.shape}")
    return _aligned(array.astype(np.float32, copy=False))


def numbers(value: object, name: str) -> npt.NDArray[np.float32]:
    """H x W x C of any numbers as floats, unscaled; 2-D stays 2-D."""
    array = as_array(value, name)
    if array.dtype.kind not in "fui" or not array.dtype.isnative:
        raise TypeError(f"{name} must be an array of numbers, got {_dtype(array)}")
    if array.ndim not in (2, 3) or array.size == 0:
        raise ValueError(f"{name} must have the shape H x W or H x W x C, got {array.shape}")
    return _aligned(array.astype(np.float32, copy=False))


def same_size(first: Array, first_name: str, second: Array, second_name: str) -> None:
    if first.shape[:2] != second.shape[:2]:
        raise ValueError(
            f"{first_name} and {second_name} must have the same height and width, "
            f"got {first.shape} and {second.shape}"
        )


def _pixels(value: object, name: str) -> Array:
    array = as_array(value, name)
    if array.dtype.kind not in "uf" or array.dtype.itemsize > (2 if array.dtype.kind == "u" else 8):
        raise TypeError(f"{name} must be uint8, uint16 or float, got {_dtype(array)}")
    if not array.dtype.isnative:
        raise TypeError(
            f"{name} must be in this machine's byte order, got {array.dtype.str}; "
            f'{name}.astype({name}.dtype.newbyteorder("=")) makes it so'
        )
    shape = array.shape
    if array.ndim == 2:
        array = array[..., None]
    if array.ndim != 3 or array.shape[2] not in (1, 3, 4):
        raise ValueError(f"{name} must have the shape H x W, H x W x 3 or H x W x 4, got {shape}")
    if array.size == 0:
        raise ValueError(f"{name} must have pixels, got the shape {shape}")
    return array[..., :3] if array.shape[2] == 4 else array


def _limits(dtype: np.dtype[Any], name: str, range: Range | None) -> tuple[float, float]:
    """The values that stand for black and white."""
    if range is None:
        if dtype.kind == "f":
            raise ValueError(
                f"range must tell which value is white, since {name} is {dtype}: range=1.0 for values in "
                "0 ... 1, range=255.0, or range=(black, white)"
            )
        return 0.0, float(np.iinfo(dtype).max)
    limits = (0.0, range) if isinstance(range, (int, float, np.number)) else range
    good = (
        isinstance(limits, (tuple, list))
        and len(limits) == 2
        and all(isinstance(x, (int, float, np.number)) and not isinstance(x, bool) for x in limits)
    )
    if not good:
        raise TypeError(f"range must be a number or (black, white), got {_short(range)}")
    black, white = (float(np.float32(x)) for x in limits)
    if not (np.isfinite(black) and np.isfinite(white) and black < white):
        raise ValueError(f"range must be finite with black below white, got {range!r}")
    return black, white


def _mask(value: object, name: str, size: tuple[int, ...]) -> Array:
    array = as_array(value, name)
    if array.dtype != np.bool_:
        raise TypeError(f"{name} must be an array of bool (True: ignore), got {_dtype(array)}")
    if array.shape != size:
        raise ValueError(f"{name} must have the shape {size} of the picture, got {array.shape}")
    return array


def _check_values(
    pixels: Array,
    name: str,
    limits: tuple[float, float],
    range: Range | None,
    unknown: Array | None,
    ignore_nan: bool,
) -> bool:
    """Refuses values that are not finite or outside the range; whether any value is not finite after all."""
    least, most = pixels.min(), pixels.max()
    finite = bool(np.isfinite(least) and np.isfinite(most))
    if not finite:
        strange = ~np.isfinite(pixels)
        if unknown is not None:
            strange &= ~unknown[..., None]
        if not ignore_nan and strange.any():
            y, x, _ = np.unravel_index(int(np.argmax(strange)), strange.shape)
            raise ValueError(
                f"{name} has {np.count_nonzero(strange.any(axis=2))} pixels that are not finite, the first at "
                f'[{y}, {x}]; mask="nan" leaves such pixels out'
            )
        known = pixels[np.isfinite(pixels)]
        least, most = (known.min(), known.max()) if known.size else limits
    if unknown is not None and not (limits[0] <= least and most <= limits[1]):
        known = pixels[~unknown]
        known = known[np.isfinite(known)] if pixels.dtype.kind == "f" else known
        least, most = (known.min(), known.max()) if known.size else limits
    if not (np.float32(limits[0]) <= np.float32(least) and np.float32(most) <= np.float32(limits[1])):
        raise ValueError(
            f"{name} must have values within range={range!r}, got {least:g} ... {most:g}; "
            "clip them or declare another range"
        )
    return not finite


def _aligned(array: npt.NDArray[np.float32]) -> npt.NDArray[np.float32]:
    return array if array.flags.aligned else array.copy()


def _dtype(array: Array) -> str:
    return str(array.dtype) if array.dtype.isnative else f"{array.dtype} in another byte order ({array.dtype.str})"


def _type(value: object) -> str:
    return type(value).__name__


def _short(value: object) -> str:
    text = repr(value)
    return text if len(text) <= 40 else f"{_type(value)} {text[:36]} ..."


Mask = Union[npt.NDArray[np.bool_], Literal["nan"]]
