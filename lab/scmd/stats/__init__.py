"""The statistics side of the device's daemon: a model for a maker's own.

`vocabulary` names everything that can be asked for, `request` answers a message of the agent, and
each source has a file: it reads the kernel's own views ("/proc", "/sys") of the device and knows
nothing of requests. Nothing here needs more than Python's own library.
"""
