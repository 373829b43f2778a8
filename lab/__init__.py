"""The lab: a whole access point, its network and its controller on one machine.

It leaves the host untouched.
"""
