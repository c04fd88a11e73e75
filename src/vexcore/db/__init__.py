"""Query service of the vexcore SDK's table database (web mode)."""
