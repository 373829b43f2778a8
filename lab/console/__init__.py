"""The lab controller's web console: what the lab knows and can do, in a browser on this machine."""
