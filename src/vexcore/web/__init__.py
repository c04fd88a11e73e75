"""Browser front end of the table database: devices, calibration, kits and beam tables.

Every table is read and written by the table managers in web mode, with the database
callbacks of ``vexcore.db.web_tables``, so a page shows what a device driver gets.
Needs the optional dependencies: ``pip install 'vexcore[web]'``; run ``vexcore-web``.
"""
