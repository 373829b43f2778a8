"""What runs inside the simulated device: its configuration, its daemon and its shell.

`model` says what can be configured and how it is written, `store` keeps it in files, `applied` makes
it true, `shell` is "/usr/bin/clish", `daemon` listens at "/var/tmp/scmd_server". Nothing here needs
more than Python's own library: every run of the shell starts an interpreter.
"""
