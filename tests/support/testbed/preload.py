"""Objects that stand between the program and the C library."""

import os


def preloaded(path, **settings):
    """The environment of a program that meets the object first, with these settings."""
    environment = dict(os.environ, LD_PRELOAD=path)
    # The address sanitizer would rather be first; calls go from the object to it.
    environment["ASAN_OPTIONS"] = ":".join(
        filter(None, [os.environ.get("ASAN_OPTIONS"), "verify_asan_link_order=0"]))
    environment.update((name, str(value)) for name, value in settings.items())
    return environment
