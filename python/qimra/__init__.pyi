from typing import Literal, Sequence, Tuple, Union, overload

import numpy as np
import numpy.typing as npt

from . import _qimra
from ._qimra import Error as Error, Report as Report

__version__: str
MODES: Tuple[str, str, str]
FORMATS: Tuple[str, str, str, str]

Mode = Literal["fixed", "mark", "adaptive"]
Format = Literal["i420", "yv12", "nv12", "nv21"]
Plane = npt.NDArray[np.uint8]
Planes = Union[Tuple[Plane, Plane, Plane], Tuple[Plane, Plane], Sequence[Plane]]

class Engine(_qimra.Engine):
    def __init__(self, width: int, height: int, *, mode: Mode = ..., format: Format = ...,
                 gamma: float = ...) -> None: ...
    @overload
    def process(self, frame: Plane, out: None = ...) -> Plane: ...
    @overload
    def process(self, frame: Planes, out: None = ...) -> Tuple[Plane, ...]: ...
    @overload
    def process(self, frame: Union[Plane, Planes], out: Plane) -> Plane: ...
    @overload
    def process(self, frame: Union[Plane, Planes], out: Planes) -> Planes: ...
    def __enter__(self) -> "Engine": ...
    def __exit__(self, *exc: object) -> None: ...

def planes(frame: Plane, width: int, height: int, format: Format = ...) -> Tuple[Plane, ...]: ...
