"""What the library raises."""


class CheckError(RuntimeError):
    """A precondition of the library is violated, or a call of its platform failed.

    ``str(error)`` is the text of the check. Preconditions are tested before anything is written, so
    that all tensors are as they were. Their outputs may be partly written after an error from

    - ``read``, ``read_hfnn``: what the file holds comes after the new shape;
    - ``write``, ``write_hfnn``, ``write_score``, ``write_diff``: so may the file be;
    - ``sgels``: ``lhs`` and the result are work space when a matrix turns out to be singular;
    - any call on a GPU whose text tells the status of a call of CUDA, cuBLAS, cuRAND or cuDNN;

    ``may_have_written`` is then true, and a note says so.
    """

    file: str
    """The source file of the check."""
    line: int
    """Its line."""
    trace: str
    """The stack trace of the library at the check, a line per entry."""
    may_have_written: bool
    """Whether outputs may be partly written."""

    def __init__(
        self,
        message: str,
        file: str = "",
        line: int = 0,
        trace: str = "",
        may_have_written: bool = False,
    ) -> None:
        super().__init__(message)
        self.file = file
        self.line = line
        self.trace = trace
        self.may_have_written = may_have_written
        if may_have_written:
            self.__notes__ = ["The outputs of the call may be partly written."]
