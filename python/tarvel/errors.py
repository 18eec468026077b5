"""The exception of the tarvel package. Python layer of the bindings."""


class Error(Exception):
    """A waveform file that does not read, or a writer that refused a call.

    ``path`` is the file, ``reason`` why (the writer's log line, or where the library's parse
    stopped), ``line`` and ``column`` the place of the fault in a file that does not read (both
    from 1; 0 when there is no place, as for a writer's refusal).
    """

    def __init__(self, path, reason, line=0, column=0):
        self.path = path
        self.reason = reason
        self.line = line
        self.column = column
        place = f"{path}:{line}:{column}" if line else path
        super().__init__(f"{place}: {reason}")
