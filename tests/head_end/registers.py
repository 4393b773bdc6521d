"""What a place that is written to may contain when everything is at rest.

A write has a begin and an end, between which it took effect: those of the call. Two writes that
overlap may have taken effect in either order. A call without an answer is a write that may never
have taken effect. So the content at rest is one of the allowed values: that of a write after whose
end no other write began that certainly took effect.
"""
import dataclasses
import math

#: The content of a place that nobody has written to, or that has been forgotten.
ABSENT = None


@dataclasses.dataclass(frozen=True)
class Write:
    """Times are those of time.monotonic(), which all processes share."""

    begin: float
    end: float
    value: object
    is_certain: bool = True


class Register:
    """One place. It keeps only the writes that can still matter."""

    def __init__(self, value=ABSENT):
        self._writes = [Write(-math.inf, -math.inf, value)]

    def write(self, begin, end, value, is_certain=True):
        self._writes.append(Write(begin, end, value, is_certain))
        self._writes = self._possibly_last()

    def settle(self, value):
        """This is the content, as has been seen at rest."""
        self._writes = [Write(-math.inf, -math.inf, value)]

    def allowed(self):
        """The values of which one must be the content at rest."""
        return {write.value for write in self._possibly_last()}

    def _possibly_last(self):
        latest_begin = max(write.begin for write in self._writes if write.is_certain)
        return [write for write in self._writes if write.end >= latest_begin]
