"""The table tool: ``python -m vexcore.tables`` or ``vexcore-tables``.

It checks, shows, converts and plots calibration tables, antenna kits, beam tables
and UD delta tables by running them through the table manager's own classes, so
what it reports is what a device driver would get.
"""
