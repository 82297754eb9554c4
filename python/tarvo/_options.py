"""What can be chosen about a computation, by name."""

from __future__ import annotations

import difflib
import numbers
import re
from types import MappingProxyType
from typing import Literal, Mapping, TypedDict, Union

import numpy as np

from tarvo import _core

Preset = Literal["standard", "fast", "accurate"]
Value = Union[float, int, str]


class Options(TypedDict, total=False):
    """The options of flow, compute and matches, which may be given by name:"""

    sigma: float
    alpha: float
    beta: float
    gamma: float
    eta: float
    fixed_point_iterations: int
    solver_iterations: int
    zeta_data: float
    zeta_gradient: float
    edge_scale: float
    smoothness_epsilon: float
    coarse_smoothness: float
    median_radius: int
    final_passes: int
    match_spacing: int
    match_support: int
    match_sizes: int
    solver: Literal["conjugate-gradients", "relaxation"]
    least_side: float


def _snake(name: str) -> str:
    return re.sub("([A-Z])", lambda letter: "_" + letter[1].lower(), name)


_NAMES = {_snake(name): name for name in _core.option_names()}
Options.__doc__ = f"{Options.__doc__}\n\n" + "\n".join(
    f"{name}: {_core.option_allowed(own)}.\n    {_core.option_text(own)}." for name, own in _NAMES.items()
)


def presets() -> dict[str, dict[str, Value]]:
    """The presets, by name, with the value of each option.

    >>> import tarvo
    >>> sorted(tarvo.presets())
    ['accurate', 'fast', 'standard']
    >>> tarvo.presets()["fast"]["fixed_point_iterations"]
    3
    """
    return {name: values_of(_core.Options.preset(name)) for name in _core.preset_names()}


def values_of(options: _core.Options) -> dict[str, Value]:
    return {name: options.get(own) for name, own in _NAMES.items()}


def make_options(
    function: str,
    preset: object,
    given: Mapping[str, object],
    settled: Mapping[str, object] = MappingProxyType({}),
) -> _core.Options:
    """The preset's options with those given in place of its own, then those settled in place of either."""
    names = _core.preset_names()
    if not isinstance(preset, str) or preset not in names:
        raise ValueError(f"preset must be one of {', '.join(names)}, got {preset!r}")
    options = _core.Options.preset(preset)
    for name, value in (*given.items(), *settled.items()):
        _set(options, function, name, value)
    zetas = options.get("zetaData"), options.get("zetaGradient")
    if (zetas[0] == 0) != (zetas[1] == 0):
        raise ValueError(f"zeta_data and zeta_gradient must both be 0 or both be above 0, got {zetas[0]} and {zetas[1]}")
    return options


def set_switches(options: _core.Options, **switches: object) -> None:
    """Sets what is on or off: backward, occlusion, matches."""
    for name, value in switches.items():
        if not isinstance(value, (bool, np.bool_)):
            raise TypeError(f"{name} must be True or False, got {value!r}")
        setattr(options, name, bool(value))


def _set(options: _core.Options, function: str, name: str, value: object) -> None:
    if name not in _NAMES:
        close = difflib.get_close_matches(name, _NAMES, 1)
        hint = f"; did you mean {close[0]}?" if close else ""
        raise TypeError(f"{function}() has no argument {name}, got {value!r}{hint}")
    own = _NAMES[name]
    allowed = _core.option_allowed(own)
    kind = type(options.get(own))
    expected = {str: str, int: numbers.Integral, float: numbers.Real}[kind]
    if isinstance(value, bool) or not isinstance(value, expected):
        raise TypeError(f"{name} must be {allowed}, got {value!r}")
    try:
        options.set(own, str(value) if kind is str else repr(kind(value)))
    except ValueError:
        raise ValueError(f"{name} must be {allowed}, got {value!r}") from None
