"""The one exception that ends a run with a message for the person at the keyboard instead of a traceback."""


class Problem(Exception):
    pass
