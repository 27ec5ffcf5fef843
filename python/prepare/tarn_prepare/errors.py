"""What ends the tool with one sentence and status 1."""


class PrepareError(Exception):
    """A model or an option that cannot be served; says what to give."""
