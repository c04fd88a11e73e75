"""python -m vexcore.tables: the table tool."""

import sys

from vexcore.tables.cli import main

if __name__ == "__main__":
    sys.exit(main())
