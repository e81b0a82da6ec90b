from typing import Literal, NamedTuple, Optional, Sequence, Union

import numpy as np
import numpy.typing as npt

Interpolation = Literal[
    "nearest", "linear", "cubic", "cubic-lagrange", "bspline", "cubic-bspline", "catmull-rom",
    "cubic-catmull-rom", "mitchell", "cubic-b05c03",
]
Triple = Union[float, Sequence[float]]
Volume = npt.NDArray[Union[np.uint8, np.uint16, np.float32]]
FloatRows = npt.NDArray[Union[np.float32, np.float64]]

INTERPOLATIONS: dict[str, int]
TREE_METHODS: dict[str, int]
SH_METHODS: dict[str, int]
MAX_ORDER: int
__version__: str

class VekrError(RuntimeError):
    status: int
    status_name: str

class VekrWarning(UserWarning): ...

def get_num_threads() -> int: ...
def set_num_threads(threads: int) -> None: ...
def library_version() -> dict[str, Union[int, str]]: ...

def resize_shape(
    shape: Sequence[int], factors: Triple, shift: Triple = ...
) -> Optional[tuple[int, int, int]]: ...
def resize(
    volume: Volume,
    factors: Triple,
    shift: Triple = ...,
    interpolation: Interpolation = ...,
    out: Optional[Volume] = ...,
    *,
    copy: bool = ...,
) -> Volume: ...
def warp_affine(
    volume: Volume,
    matrix: npt.ArrayLike,
    output_shape: Optional[Sequence[int]] = ...,
    interpolation: Interpolation = ...,
    out: Optional[Volume] = ...,
    cval_keep: bool = ...,
    cval: float = ...,
    *,
    copy: bool = ...,
) -> Volume: ...
def remap(
    volume: Volume,
    coordinates: npt.NDArray[np.float32],
    interpolation: Interpolation = ...,
    out: Optional[Volume] = ...,
    cval_keep: bool = ...,
    cval: float = ...,
    *,
    copy: bool = ...,
) -> Volume: ...
def filter(
    volume: npt.NDArray[np.int16],
    kernel: npt.NDArray[np.integer],
    anchor: Optional[Sequence[int]] = ...,
    divisor: int = ...,
    out: Optional[npt.NDArray[np.int16]] = ...,
    mode: Literal["nearest", "constant", "valid"] = ...,
    cval: int = ...,
    *,
    copy: bool = ...,
) -> npt.NDArray[np.int16]: ...

class Hits(NamedTuple):
    distance: npt.NDArray[np.float32]
    uv: npt.NDArray[np.float32]
    triangle: npt.NDArray[np.int32]

class Scene:
    method: str
    def __init__(
        self,
        vertices: FloatRows,
        triangles: npt.NDArray[np.integer],
        method: Literal["sah-full", "sah", "simple"] = ...,
        ratio: float = ...,
    ) -> None: ...
    @property
    def tree_size(self) -> int: ...
    @property
    def build_time(self) -> float: ...
    @property
    def triangle_count(self) -> int: ...
    @property
    def bounds(self) -> tuple[tuple[float, float, float], tuple[float, float, float]]: ...
    def intersect(
        self,
        origins: npt.ArrayLike,
        directions: FloatRows,
        max_distance: Union[float, npt.ArrayLike] = ...,
    ) -> Hits: ...
    def intersect_layers(
        self,
        origin: npt.ArrayLike,
        directions: FloatRows,
        layers: int,
        max_distance: Union[float, npt.ArrayLike] = ...,
    ) -> Hits: ...
    def occluded(self, origin: npt.ArrayLike, targets: FloatRows) -> npt.NDArray[np.bool_]: ...

def sh_basis(
    directions: FloatRows, order: int, method: Literal["recurrence", "direct"] = ...
) -> npt.NDArray[np.float32]: ...
def sh_project(
    directions: FloatRows, values: npt.NDArray[np.float32], order: int
) -> npt.NDArray[np.float32]: ...
def sh_reconstruct(
    coefficients: npt.NDArray[np.float32], directions: FloatRows
) -> npt.NDArray[np.float32]: ...
