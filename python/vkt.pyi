"""vkt images: a tree of typed values in one binary image, read in place."""
from typing import Any, BinaryIO, Iterator, List, Optional, Tuple, Union

MAX_DEPTH: int

Scalar = Union[None, bool, int, float, str, memoryview]
Item = Union[Scalar, "Value"]


class Error(ValueError):
    """A damaged or unreadable image."""
    reason: str  # what is wrong, e.g. "section beyond the image"
    offset: int  # the image byte where it was found


class Stream:
    """A payload stored as a stream (bound=True: a bstream), at a multiple
    of `align` bytes in the image."""
    data: Any
    align: int
    bound: bool
    def __init__(self, data: Any, align: int = 1, bound: bool = False) -> None: ...


def dumps(obj: Any, *, share: bool = True) -> bytes:
    """The image of obj: None, bool, int (64 bits at most), float, str
    (without NUL), bytes-like (a stream), Stream, list/tuple, dict with str
    keys. share=False keeps equal elements of a container apart."""
def dump(obj: Any, fp: BinaryIO, *, share: bool = True) -> None: ...
def loads(data: Any) -> Any:
    """The whole image in a bytes-like object as Python objects."""
def load(fp: BinaryIO) -> Any: ...


class Value:
    """A view of an array or object of an image; keeps the image alive."""
    @property
    def type(self) -> str: ...  # "array" or "object"
    def __len__(self) -> int: ...
    def __getitem__(self, key: Union[str, int]) -> Item: ...
    def get(self, key: str, default: Any = None) -> Any: ...
    def __contains__(self, key: object) -> bool: ...
    def __iter__(self) -> Iterator[Any]: ...  # an object's keys, an array's items
    def keys(self) -> List[str]: ...
    def values(self) -> List[Item]: ...
    def items(self) -> List[Tuple[str, Item]]: ...
    def to_py(self) -> Any: ...


class Image:
    """An image read in place from any bytes-like object, without copying.
    Checked as it is read unless trusted=True."""
    def __init__(self, buffer: Any, *, trusted: bool = False) -> None: ...
    @staticmethod
    def open(path: str, *, trusted: bool = False) -> "Image": ...
    @property
    def root(self) -> Item: ...
    @property
    def size(self) -> int: ...
    def get(self, path: str, default: Any = None) -> Any:
        """The value at a PATH such as 'statuses[3].user.screen_name'."""
    def verify(self) -> None:
        """Checks the whole image; raises Error when it is damaged."""
